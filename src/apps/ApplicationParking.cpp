// Application's way between the parking queue and the instances, and what it does as time passes.

#include "apps/Application.h"
#include "common/SFormat.h"

#include <algorithm>
#include <random>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr std::chrono::seconds firstMarkerDelay{1};
constexpr std::chrono::seconds longestMarkerDelay{30};
/** A marker gets lost with its queue, or goes to another agent that is served while this one is not. */
constexpr std::chrono::seconds markerPatience{30};

/** Markers of earlier processes may still be in the parking queue: numbers start where nobody else has been. */
std::uint64_t FirstMarker()
{
    std::random_device random;
    const std::uint64_t high = random();
    return (high << 31U) ^ random();
}

} // namespace

Application::Application(ApplicationSettings settings, ApplicationContext context)
    : m_name(settings.name), m_context(context), m_settings(std::move(settings)), m_marker(FirstMarker()),
      m_markerDelay(firstMarkerDelay)
{
}

void Application::OfferLive(Item item)
{
    if (IsSlow(item.bytes, item.since) || !m_context.budget.TryHold(m_held, item.bytes))
    {
        BecomeSlow(&item);
        return;
    }
    Append(std::move(item));
}

void Application::OfferSwitching(Item item)
{
    // A message over the bound for all may stop the reading by which the marker that it waits for has to come.
    const bool fits = m_context.budget.Fits(item.bytes) && !ExceedsOwnBound(item.bytes) &&
                      !m_context.budget.WouldExceedShare(m_held, item.bytes);
    if (fits && m_context.budget.TryHold(m_held, item.bytes))
    {
        m_behindMarker.push_back(std::move(item));
        return;
    }
    ParkAll(m_behindMarker);
    Park(item);
    m_flow = ApplicationFlow::draining;
}

bool Application::ExceedsOwnBound(std::size_t bytes) const
{
    return m_settings.maxHeldBytes && m_held.messages != 0 && m_held.bytes + bytes > *m_settings.maxHeldBytes;
}

bool Application::IsSlow(std::size_t bytes, TimePoint now)
{
    if (ExceedsOwnBound(bytes))
    {
        return true;
    }
    if (!m_context.budget.WouldExceedShare(m_held, bytes))
    {
        return false;
    }
    const std::optional<TimePoint> oldest = OldestHeld();
    if (!oldest)
    {
        return false;
    }
    if (now - *oldest >= m_context.slowAfter)
    {
        return true;
    }
    ArmFor(*oldest + m_context.slowAfter);
    return false;
}

std::optional<Application::TimePoint> Application::OldestHeld() const
{
    std::optional<TimePoint> oldest;
    const auto consider = [&oldest](TimePoint since) { oldest = oldest ? std::min(*oldest, since) : since; };
    if (!m_pending.empty())
    {
        consider(m_pending.front().since);
    }
    for (const auto& [id, session] : m_sessions)
    {
        if (!session.inFlight.empty())
        {
            consider(session.inFlight.begin()->second.since);
        }
        if (!session.waiting.empty())
        {
            consider(session.waiting.front().since);
        }
    }
    return oldest;
}

void Application::Park(Item& item)
{
    m_parkedSinceMarker = true;
    // The copy has only the count to tell by that somebody may have worked on the message already.
    item.receipt->Park(item.redelivered ? std::max(item.tries, 1U) : item.tries);
    item.receipt.reset();
    ++m_counters.parked;
}

void Application::ParkAll(std::deque<Item>& items)
{
    for (Item& item : items)
    {
        if (!item.fromParking)
        {
            m_context.budget.Release(m_held, item.bytes);
        }
        Park(item);
    }
    items.clear();
}

void Application::StartDraining()
{
    m_flow = ApplicationFlow::draining;
    m_absenceEndsAt.reset();
    m_consuming = true;
    m_context.parking.Consume(m_name, m_settings.window);
    SendMarker();
}

void Application::BecomeLive()
{
    for (Item& item : m_behindMarker)
    {
        Append(std::move(item));
    }
    m_behindMarker.clear();
    // The parking queue, empty now, stays consumed: a queue whose consumer changes while messages arrive may mix them
    // up.
    m_flow = ApplicationFlow::live;
}

void Application::BecomeSlow(Item* last)
{
    GatherWaiting();
    ParkAll(m_pending);
    if (last != nullptr)
    {
        Park(*last);
    }
    StartDraining();
}

void Application::BecomeAbsent()
{
    // What is older than anything parked stays in memory for a while, and the parking queue consumed, so that the order
    // holds when the application is back soon.
    MergeRetries();
    if (m_flow == ApplicationFlow::live)
    {
        ParkAll(m_pending);
    }
    ParkAll(m_behindMarker);
    m_flow = ApplicationFlow::parked;
    m_markerRetryAt.reset();
    m_absenceEndsAt = m_context.timers.Now() + m_settings.ackTimeout;
    ArmFor(*m_absenceEndsAt);
}

void Application::GiveBackParked()
{
    DropUnanswered(m_pending, [](const Item& item) { return item.fromParking; });
    if (std::exchange(m_consuming, false))
    {
        m_context.parking.Release(m_name);
    }
}

void Application::SendMarker()
{
    m_parkedSinceMarker = false;
    ++m_marker;
    PublishMarker();
}

void Application::PublishMarker()
{
    m_markerRetryAt.reset();
    m_markerSent = false;
    m_context.parking.SendMarker(
        m_name, m_marker,
        [weak = weak_from_this(), marker = m_marker](bool sent)
        {
            if (const auto self = weak.lock())
            {
                self->MarkerSent(marker, sent);
            }
        });
}

void Application::MarkerSent(std::uint64_t marker, bool sent)
{
    const std::lock_guard lock(m_mutex);
    const bool wanted = m_flow == ApplicationFlow::draining || m_flow == ApplicationFlow::switching;
    if (marker != m_marker || !wanted || m_closed)
    {
        return;
    }
    m_markerSent = sent;
    m_markerRetryAt = m_context.timers.Now() + (sent ? markerPatience : m_markerDelay);
    m_markerDelay = sent ? firstMarkerDelay : std::min<Timers::Clock::duration>(m_markerDelay * 2, longestMarkerDelay);
    ArmFor(*m_markerRetryAt);
}

void Application::MarkerReturned(std::uint64_t marker)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    if (marker != m_marker || m_closed)
    {
        return;
    }
    if (m_flow == ApplicationFlow::switching || (m_flow == ApplicationFlow::draining && !m_parkedSinceMarker))
    {
        m_markerRetryAt.reset();
        BecomeLive();
        Pump(effects);
    }
    else if (m_flow == ApplicationFlow::draining)
    {
        m_flow = ApplicationFlow::switching;
        SendMarker();
    }
}

void Application::ArmFor(TimePoint when)
{
    if (m_armedFor && *m_armedFor <= when)
    {
        return;
    }
    m_armedFor = when;
    const auto delay = std::max(when - m_context.timers.Now(), Timers::Clock::duration::zero());
    m_context.timers.After(
        delay,
        [weak = weak_from_this()]
        {
            if (const auto self = weak.lock())
            {
                self->OnTimer();
            }
        });
}

void Application::OnTimer()
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    const TimePoint now = m_context.timers.Now();
    if (m_armedFor && *m_armedFor <= now)
    {
        m_armedFor.reset();
    }
    if (m_closed)
    {
        return;
    }
    ReturnRetries(now);
    EndOverdue(now, effects);
    CheckSlow(now);
    ResendMarker(now);
    EndAbsence(now);
    Pump(effects);
}

void Application::ReturnRetries(TimePoint now)
{
    std::vector<Item> due;
    while (!m_retries.empty() && m_retries.begin()->first <= now)
    {
        due.push_back(std::move(m_retries.begin()->second));
        due.back().since = now;
        m_retries.erase(m_retries.begin());
    }
    Requeue(std::move(due));
    if (!m_retries.empty())
    {
        ArmFor(m_retries.begin()->first);
    }
}

void Application::EndOverdue(TimePoint now, Effects& effects)
{
    for (auto position = m_sessions.begin(); position != m_sessions.end();)
    {
        const auto current = position++;
        const Session& session = current->second;
        if (session.inFlight.empty())
        {
            continue;
        }
        const TimePoint deadline = session.inFlight.begin()->second.since + m_settings.ackTimeout;
        if (now < deadline)
        {
            ArmFor(deadline);
            continue;
        }
        ++m_counters.overdue;
        effects.end.emplace_back(
            session.session, SessionEnd::overdue,
            SFormat(
                "delivery %llu had no verdict for %lld seconds: answer DONE, RETRY or DEAD in time, ask for a smaller "
                "window, or raise ack_timeout_seconds in the application's drop-in file %s.toml",
                static_cast<unsigned long long>(session.inFlight.begin()->first),
                static_cast<long long>(m_settings.ackTimeout.count()), m_name.c_str()));
        RemoveSession(current);
    }
}

void Application::CheckSlow(TimePoint now)
{
    if (m_flow == ApplicationFlow::live && IsSlow(0, now))
    {
        BecomeSlow(nullptr);
    }
}

void Application::ResendMarker(TimePoint now)
{
    if (m_markerRetryAt && *m_markerRetryAt <= now && m_markerSent)
    {
        // The same once more: while there is much before it, it may just not have come yet.
        PublishMarker();
    }
    else if (m_markerRetryAt && *m_markerRetryAt <= now)
    {
        SendMarker();
    }
    else if (m_markerRetryAt)
    {
        ArmFor(*m_markerRetryAt);
    }
}

void Application::EndAbsence(TimePoint now)
{
    if (m_absenceEndsAt && *m_absenceEndsAt <= now)
    {
        m_absenceEndsAt.reset();
        GiveBackParked();
        ParkAll(m_pending);
    }
    else if (m_absenceEndsAt)
    {
        ArmFor(*m_absenceEndsAt);
    }
}

} // namespace VtxQel

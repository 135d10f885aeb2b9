#include "apps/Application.h"

#include "apps/OrderingKeys.h"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <iterator>

namespace VtxQel
{

void Application::Effects::Flush(const boost::shared_ptr<ApplicationSession>& session)
{
    if (std::find(flush.begin(), flush.end(), session) == flush.end())
    {
        flush.push_back(session);
    }
}

Application::Effects::~Effects()
{
    for (const auto& session : flush)
    {
        Turn::AtEnd(session);
    }
    for (const auto& [session, why, text] : end)
    {
        session->End(why, text);
    }
}

ApplicationSettings Application::Settings() const
{
    const std::lock_guard lock(m_mutex);
    return m_settings;
}

void Application::UpdateSettings(const ApplicationSettings& settings)
{
    const std::lock_guard lock(m_mutex);
    m_settings = settings;
    for (auto& [id, session] : m_sessions)
    {
        session.window = std::min(session.window, settings.window);
    }
}

void Application::Offer(boost::shared_ptr<Delivery> message, boost::shared_ptr<Receipt> receipt)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    if (m_closed || !m_delivering)
    {
        return;
    }
    Item item;
    item.bytes = message->GetFootprint();
    item.tries = message->GetTries();
    item.redelivered = message->IsRedelivered() || item.tries != 0;
    item.fromParking = !message->GetParkedFor().empty();
    item.key = OrderingKeyOf(m_settings.orderingKey, *message);
    item.message = std::move(message);
    item.receipt = std::move(receipt);
    item.since = m_context.timers.Now();
    if (item.fromParking)
    {
        // One that was still on its way when the parking queue was given back comes again when that is consumed.
        if (m_consuming)
        {
            Append(std::move(item));
        }
    }
    else if (m_flow == ApplicationFlow::live)
    {
        OfferLive(std::move(item));
    }
    else if (m_flow == ApplicationFlow::switching)
    {
        OfferSwitching(std::move(item));
    }
    else
    {
        Park(item);
    }
    Pump(effects);
}

std::optional<Application::SessionId> Application::Attach(
    boost::shared_ptr<ApplicationSession> session, std::uint32_t window)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    if (m_closed || !m_delivering)
    {
        return std::nullopt;
    }
    const SessionId id = ++m_lastSession;
    Session& attached = m_sessions[id];
    attached.session = std::move(session);
    attached.window = WindowFor(window);
    if (m_flow == ApplicationFlow::parked)
    {
        StartDraining();
    }
    if (id == 1 && m_context.firstAttached)
    {
        m_context.firstAttached(m_name);
    }
    Pump(effects);
    return id;
}

void Application::Detach(SessionId id)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    const auto position = m_sessions.find(id);
    if (position != m_sessions.end())
    {
        RemoveSession(position);
        Pump(effects);
    }
}

void Application::Leave(SessionId id)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    const auto position = m_sessions.find(id);
    if (position == m_sessions.end())
    {
        return;
    }
    Session& session = position->second;
    session.leaving = true;
    std::vector<Item> items;
    for (const std::uint64_t delivery : session.session->Recall())
    {
        const auto unsent = session.inFlight.find(delivery);
        if (unsent != session.inFlight.end())
        {
            items.push_back(TakeInFlight(session, unsent));
        }
    }
    Requeue(std::move(items));
    EndWhenAnswered(position, effects);
    Pump(effects);
}

std::optional<std::uint64_t> Application::Answer(SessionId id, const std::vector<ApplicationVerdict>& verdicts)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    const auto session = m_sessions.find(id);
    if (session == m_sessions.end())
    {
        return std::nullopt;
    }
    std::optional<std::uint64_t> unknown;
    for (const ApplicationVerdict& verdict : verdicts)
    {
        const auto position = session->second.inFlight.find(verdict.deliveryId);
        if (position == session->second.inFlight.end())
        {
            unknown = verdict.deliveryId;
            break;
        }
        Settle(TakeInFlight(session->second, position), verdict);
    }
    if (!unknown)
    {
        EndWhenAnswered(session, effects);
    }
    Pump(effects);
    return unknown;
}

void Application::SetWindow(SessionId id, std::uint32_t window)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    const auto session = m_sessions.find(id);
    if (session != m_sessions.end())
    {
        session->second.window = WindowFor(window);
        Pump(effects);
    }
}

std::uint32_t Application::EffectiveWindow(std::uint32_t wanted) const
{
    const std::lock_guard lock(m_mutex);
    return WindowFor(wanted);
}

void Application::DropUnsent()
{
    const std::lock_guard lock(m_mutex);
    GatherWaiting();
    const auto isLost = [](const Item& item) { return !item.message->IsCurrent(); };
    DropUnanswered(m_pending, isLost);
    DropUnanswered(m_behindMarker, isLost);
    for (auto retry = m_retries.begin(); retry != m_retries.end();)
    {
        if (!isLost(retry->second))
        {
            ++retry;
            continue;
        }
        LetGo(retry->second);
        retry = m_retries.erase(retry);
    }
}

void Application::Reconnected()
{
    const std::lock_guard lock(m_mutex);
    if (!m_closed && (m_flow == ApplicationFlow::draining || m_flow == ApplicationFlow::switching))
    {
        SendMarker();
    }
}

void Application::StopDelivering()
{
    const std::lock_guard lock(m_mutex);
    m_delivering = false;
}

void Application::Stop(const std::string& why)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    Shut(why, false, effects);
}

void Application::Remove(const std::string& why)
{
    Effects effects;
    const std::lock_guard lock(m_mutex);
    Shut(why, true, effects);
}

ApplicationSnapshot Application::Snapshot() const
{
    const std::lock_guard lock(m_mutex);
    ApplicationSnapshot snapshot = m_counters;
    snapshot.flow = m_flow;
    snapshot.sessions = m_sessions.size();
    snapshot.pending = m_pending.size() + m_behindMarker.size() + m_waiting;
    snapshot.waitingForRetry = m_retries.size();
    snapshot.heldBytes = m_held.bytes;
    for (const auto& [id, session] : m_sessions)
    {
        snapshot.window += session.window;
        snapshot.inFlight += session.inFlight.size();
    }
    return snapshot;
}

std::uint32_t Application::WindowFor(std::uint32_t wanted) const
{
    return wanted == 0 ? m_settings.window : std::min(wanted, m_settings.window);
}

void Application::Append(Item item)
{
    item.sequence = m_nextSequence++;
    m_pending.push_back(std::move(item));
}

void Application::Pump(Effects& effects)
{
    if ((m_pending.empty() && m_waiting == 0) || !m_delivering)
    {
        return;
    }
    const TimePoint now = m_context.timers.Now();
    ServeWaiting(now, effects);
    while (!m_pending.empty() && PumpOne(now, effects))
    {
    }
}

bool Application::PumpOne(TimePoint now, Effects& effects)
{
    Item& first = m_pending.front();
    const auto bound = SessionFor(first);
    const bool isBound = bound != m_sessions.end();
    if (isBound && (!bound->second.HasRoom() || !bound->second.waiting.empty()))
    {
        PutAside(bound, std::move(first), now);
        m_pending.pop_front();
        return true;
    }
    if (!MaySend(first))
    {
        return false;
    }
    const auto position = isBound ? bound : NextSession();
    if (position == m_sessions.end())
    {
        return false;
    }
    SendTo(position, std::move(first), now, effects);
    m_pending.pop_front();
    return true;
}

bool Application::MaySend(const Item& item) const
{
    return item.fromParking || m_context.budget.MaySend(m_sent, item.bytes);
}

void Application::ServeWaiting(TimePoint now, Effects& effects)
{
    if (m_waiting == 0)
    {
        return;
    }
    const auto isLeaving = [](const auto& known) { return known.second.leaving && !known.second.waiting.empty(); };
    if (std::any_of(m_sessions.begin(), m_sessions.end(), isLeaving))
    {
        // Those whose key it has nothing of any more may go to others.
        GatherWaiting();
        return;
    }
    for (auto position = m_sessions.begin(); position != m_sessions.end(); ++position)
    {
        std::deque<Item>& waiting = position->second.waiting;
        while (!waiting.empty() && position->second.HasRoom() && MaySend(waiting.front()))
        {
            Item item = std::move(waiting.front());
            waiting.pop_front();
            --m_waiting;
            m_keys.Release(item.key, now);
            SendTo(position, std::move(item), now, effects);
        }
    }
}

/** The instance that the item's key is bound to; the end when that may be any. */
Application::SessionPosition Application::SessionFor(const Item& item)
{
    const auto bound = item.key == 0 ? std::nullopt : m_keys.Find(item.key);
    const auto position = bound ? m_sessions.find(*bound) : m_sessions.end();
    const bool isFree = position != m_sessions.end() && position->second.leaving && m_keys.IsIdle(item.key);
    return isFree ? m_sessions.end() : position;
}

Application::SessionPosition Application::NextSession()
{
    auto position = m_sessions.upper_bound(m_lastServed);
    for (std::size_t tried = 0; tried < m_sessions.size(); ++tried, ++position)
    {
        if (position == m_sessions.end())
        {
            position = m_sessions.begin();
        }
        if (position->second.HasRoom())
        {
            m_lastServed = position->first;
            return position;
        }
    }
    return m_sessions.end();
}

void Application::PutAside(SessionPosition position, Item item, TimePoint now)
{
    m_keys.Take(item.key, position->first, now);
    position->second.waiting.push_back(std::move(item));
    ++m_waiting;
}

void Application::SendTo(SessionPosition position, Item item, TimePoint now, Effects& effects)
{
    Session& session = position->second;
    item.since = now;
    if (item.key != 0)
    {
        m_keys.Take(item.key, position->first, now);
    }
    if (!item.fromParking)
    {
        m_context.budget.AddSent(m_sent, item.bytes);
    }
    const std::uint64_t id = ++session.lastDelivery;
    session.session->Enqueue({id, item.message, item.tries, item.redelivered});
    session.inFlight.emplace_hint(session.inFlight.end(), id, std::move(item));
    ++m_counters.delivered;
    effects.Flush(session.session);
    ArmFor(now + m_settings.ackTimeout);
}

Application::Item Application::TakeInFlight(Session& session, std::map<std::uint64_t, Item>::iterator position)
{
    Item item = std::move(position->second);
    session.inFlight.erase(position);
    if (!item.fromParking)
    {
        m_context.budget.RemoveSent(m_sent, item.bytes);
    }
    if (item.key != 0)
    {
        m_keys.Release(item.key, m_context.timers.Now());
    }
    return item;
}

void Application::TakeWaiting(Session& session, std::vector<Item>& items)
{
    const TimePoint now = m_context.timers.Now();
    m_waiting -= session.waiting.size();
    for (Item& item : session.waiting)
    {
        m_keys.Release(item.key, now);
        items.push_back(std::move(item));
    }
    session.waiting.clear();
}

/** Brings what waits for single instances back to its place among the rest. */
void Application::GatherWaiting()
{
    if (m_waiting == 0)
    {
        return;
    }
    std::vector<Item> items;
    for (auto& [id, session] : m_sessions)
    {
        TakeWaiting(session, items);
    }
    Requeue(std::move(items));
}

void Application::EndWhenAnswered(SessionPosition position, Effects& effects)
{
    const Session& session = position->second;
    if (session.leaving && session.inFlight.empty())
    {
        effects.end.emplace_back(session.session, SessionEnd::finished, "");
        RemoveSession(position);
    }
}

void Application::Settle(Item item, const ApplicationVerdict& verdict)
{
    ++item.tries;
    switch (verdict.kind)
    {
    case ApplicationVerdict::Kind::done:
        item.receipt->Done();
        LetGo(item);
        ++m_counters.done;
        return;
    case ApplicationVerdict::Kind::dead:
        Bury(item, verdict.reason);
        ++m_counters.dead;
        return;
    case ApplicationVerdict::Kind::retry:
        Retry(std::move(item), verdict.retryDelay);
        return;
    }
}

void Application::Retry(Item item, std::chrono::milliseconds delay)
{
    ++m_counters.retried;
    if (item.tries >= m_settings.maxTries)
    {
        Bury(item, "too many tries");
        ++m_counters.tooManyTries;
    }
    else
    {
        item.redelivered = true;
        const TimePoint due = m_context.timers.Now() + delay;
        m_retries.emplace(due, std::move(item));
        ArmFor(due);
    }
}

void Application::Bury(Item& item, const std::string& reason)
{
    item.receipt->Dead(reason, item.tries);
    LetGo(item);
}

void Application::LetGo(Item& item)
{
    if (!item.fromParking)
    {
        m_context.budget.Release(m_held, item.bytes);
    }
    item.receipt.reset();
}

void Application::Requeue(std::vector<Item> items)
{
    const auto earlier = [](const Item& left, const Item& right) { return left.sequence < right.sequence; };
    std::sort(items.begin(), items.end(), earlier);
    const auto count = static_cast<std::ptrdiff_t>(items.size());
    m_pending.insert(m_pending.begin(), std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
    std::inplace_merge(m_pending.begin(), m_pending.begin() + count, m_pending.end(), earlier);
}

void Application::RemoveSession(SessionPosition position)
{
    Session& session = position->second;
    std::vector<Item> items;
    items.reserve(session.inFlight.size());
    while (!session.inFlight.empty())
    {
        items.push_back(TakeInFlight(session, session.inFlight.begin()));
        items.back().redelivered = true;
    }
    CountAgainstOldest(items);
    TakeWaiting(session, items);
    m_keys.Remove(position->first);
    m_sessions.erase(position);
    Requeue(std::move(items));
    if (!m_delivering)
    {
        LeaveBehind(m_pending);
    }
    else if (m_sessions.empty())
    {
        BecomeAbsent();
    }
}

void Application::CountAgainstOldest(std::vector<Item>& items)
{
    if (items.empty() || !m_delivering)
    {
        return;
    }
    // An instance that ends over a message most likely ends over the one it has had longest: counting that one keeps
    // a poisonous message from coming back for ever, and counting no other spares its neighbours.
    Item& oldest = items.front();
    if (++oldest.tries >= m_settings.maxTries)
    {
        Bury(oldest, "too many tries");
        ++m_counters.tooManyTries;
        items.erase(items.begin());
    }
}

void Application::Shut(const std::string& why, bool park, Effects& effects)
{
    m_closed = true;
    while (!m_sessions.empty())
    {
        Session& session = m_sessions.begin()->second;
        effects.end.emplace_back(session.session, SessionEnd::unavailable, why);
        std::vector<Item> items;
        while (!session.inFlight.empty())
        {
            items.push_back(TakeInFlight(session, session.inFlight.begin()));
        }
        TakeWaiting(session, items);
        m_keys.Remove(m_sessions.begin()->first);
        m_sessions.erase(m_sessions.begin());
        Requeue(std::move(items));
    }
    MergeRetries();
    if (park)
    {
        GiveBackParked();
        ParkAll(m_pending);
        ParkAll(m_behindMarker);
    }
    LeaveBehind(m_pending);
    DropUnanswered(m_behindMarker, [](const Item&) { return true; });
    m_flow = ApplicationFlow::parked;
}

void Application::LeaveBehind(std::deque<Item>& items)
{
    for (Item& item : items)
    {
        if (item.tries > item.message->GetTries())
        {
            // The broker does not know of our tries; the copy in the parking queue carries their count.
            if (!item.fromParking)
            {
                m_context.budget.Release(m_held, item.bytes);
            }
            Park(item);
        }
        else
        {
            LetGo(item);
        }
    }
    items.clear();
}

void Application::MergeRetries()
{
    std::vector<Item> items;
    items.reserve(m_retries.size());
    for (auto& [due, item] : m_retries)
    {
        items.push_back(std::move(item));
    }
    m_retries.clear();
    Requeue(std::move(items));
}

void Application::DropUnanswered(std::deque<Item>& items, const std::function<bool(const Item&)>& which)
{
    std::deque<Item> kept;
    for (Item& item : items)
    {
        if (which(item))
        {
            LetGo(item);
        }
        else
        {
            kept.push_back(std::move(item));
        }
    }
    items.swap(kept);
}

} // namespace VtxQel

#include "ReplayRun.h"

#include <iostream>
#include <utility>

namespace VtxQel
{

namespace
{

/** So many at most may be in the broker and in the dead-letter queue when we are killed. */
constexpr std::size_t mostInFlight = 100;
constexpr std::size_t mostBytesInFlight = std::size_t{16} << 20;
constexpr std::size_t mostFailuresTold = 10;

} // namespace

void ReplayRun::Execute(DeadLetterSession& session, bool showProgress)
{
    m_lastProgress = std::chrono::steady_clock::now();
    bool goOn = true;
    while (goOn)
    {
        std::optional<DeadLetterAt> letter = session.Next();
        if (!letter)
        {
            break;
        }
        const bool selected =
            letter->unreadable.empty()
                ? m_filter.Matches(DeadLetter::Of(*letter->message.properties), *letter->message.properties)
                : m_filter.IsEmpty();
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_tally.seen;
            m_tally.selected += selected ? 1 : 0;
        }
        if (!selected)
        {
            session.Keep();
        }
        else if (WaitForRoom(letter->message.body.size()))
        {
            Replay(session, std::move(*letter));
        }
        else
        {
            NoteFailure(letter->number, "not tried after the failures before");
            goOn = false;
        }
        if (showProgress)
        {
            ShowProgress(session, false);
        }
    }
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_inFlight == 0; });
    }
    if (showProgress)
    {
        ShowProgress(session, true);
    }
}

/** @return false when the broker takes nothing any more. */
bool ReplayRun::WaitForRoom(std::size_t bytes)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(
        lock,
        [this, bytes]
        {
            return m_hopeless || m_inFlight == 0 ||
                   (m_inFlight < mostInFlight && m_inFlightBytes + bytes <= mostBytesInFlight);
        });
    return !m_hopeless;
}

void ReplayRun::Replay(DeadLetterSession& session, DeadLetterAt letter)
{
    if (!letter.unreadable.empty())
    {
        session.Keep();
        NoteFailure(letter.number, "it cannot be read: " + letter.unreadable);
        return;
    }
    const std::size_t bytes = letter.message.body.size();
    std::optional<OutgoingMessage> message = MakeReplay(letter.message, m_to, m_clientQueue);
    if (!message)
    {
        session.Keep();
        NoteFailure(
            letter.number,
            m_to == ReplayTo::application ? "it names no application" : "it does not say where it was published to");
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_inFlight;
        m_inFlightBytes += bytes;
    }
    const std::uint32_t number = letter.number;
    const DeliveryTag tag = letter.message.tag;
    session.Publish(
        std::move(*message),
        [this, &session, number, tag, bytes](PublishResult result, const std::string& why)
        {
            if (result == PublishResult::confirmed)
            {
                session.Remove(tag);
            }
            else
            {
                session.Keep();
            }
            OnOutcome(number, bytes, {result, why});
        });
}

void ReplayRun::OnOutcome(std::uint32_t number, std::size_t bytes, const PublishOutcome& outcome)
{
    if (outcome.result == PublishResult::noRoute)
    {
        NoteFailure(number, "no queue takes it");
    }
    else if (outcome.result == PublishResult::timedOut)
    {
        NoteFailure(number, outcome.why + ": it may have been published all the same");
    }
    else if (outcome.result != PublishResult::confirmed)
    {
        NoteFailure(number, outcome.why);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_inFlight;
    m_inFlightBytes -= bytes;
    m_tally.done += outcome.result == PublishResult::confirmed ? 1 : 0;
    m_hopeless = m_hopeless || outcome.result == PublishResult::timedOut;
    m_changed.notify_all();
}

void ReplayRun::NoteFailure(std::uint32_t number, const std::string& why)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_tally.failed;
    if (m_failures.size() < mostFailuresTold)
    {
        m_failures.push_back("message " + std::to_string(number) + " stays in the queue: " + why);
    }
}

DeadLetterTally ReplayRun::Tally() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_tally;
}

std::vector<std::string> ReplayRun::Failures() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_failures;
}

void ReplayRun::ShowProgress(const DeadLetterSession& session, bool last)
{
    const auto now = std::chrono::steady_clock::now();
    if (!last && now - m_lastProgress < std::chrono::seconds(1))
    {
        return;
    }
    m_lastProgress = now;
    const DeadLetterTally tally = Tally();
    std::cerr << "\r" << tally.done << " replayed, " << tally.failed << " failed, " << tally.seen << " of "
              << session.Count() << " looked at" << (last ? "\n" : "") << std::flush;
}

} // namespace VtxQel

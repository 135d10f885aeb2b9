#include "broker/LoopProbe.h"

#include "common/MessageTypes.h"
#include "logging/Log.h"

#include <random>
#include <utility>

namespace VtxQel
{

namespace
{

std::string RandomWord()
{
    std::random_device random;
    return std::to_string(random()) + "-" + std::to_string(random());
}

bool IsPowerOfTwo(std::uint64_t number)
{
    return (number & (number - 1)) == 0;
}

} // namespace

LoopProbe::LoopProbe(LoopProbeSettings settings, std::string queue, LoopProbeActions actions)
    : m_settings(settings), m_queue(std::move(queue)), m_actions(std::move(actions)), m_word(RandomWord())
{
    m_status.state = m_settings.interval.count() == 0 ? State::off : State::waiting;
}

void LoopProbe::Start()
{
    std::uint64_t session = 0;
    {
        const std::lock_guard lock(m_mutex);
        if (m_status.state == State::off)
        {
            return;
        }
        session = ++m_session;
        m_awaited = false;
    }
    Send(session);
}

void LoopProbe::Pause()
{
    const std::lock_guard lock(m_mutex);
    ++m_session;
    m_awaited = false;
    if (m_status.state != State::off)
    {
        m_status.state = State::waiting;
    }
}

void LoopProbe::Send(std::uint64_t session)
{
    OutgoingMessage probe;
    std::uint64_t number = 0;
    {
        const std::lock_guard lock(m_mutex);
        if (session != m_session)
        {
            return;
        }
        // One that is merely late is waited for: more of them would come no sooner.
        if (!m_awaited || m_overdue)
        {
            number = ++m_number;
            m_awaited = true;
            m_overdue = false;
            m_confirmed = false;
            m_noQueue = false;
            m_publishError.clear();
            m_sentAt = Clock::now();
            m_arrivals = m_actions.arrivals();
        }
    }
    m_actions.after(m_settings.interval, [this, session] { Send(session); });
    if (number == 0)
    {
        return;
    }
    probe.routingKey = m_queue;
    probe.properties.type = LOOP_PROBE_TYPE;
    probe.properties.messageId = m_word + "/" + std::to_string(number);
    probe.mandatory = true;
    probe.deadline = m_settings.deadline;
    m_actions.publish(
        std::move(probe),
        [this, number](PublishResult result, const std::string& why) { OnPublished(number, result, why); });
    m_actions.after(m_settings.deadline, [this, number] { OnDeadline(number); });
}

void LoopProbe::OnPublished(std::uint64_t number, PublishResult result, const std::string& why)
{
    const std::lock_guard lock(m_mutex);
    if (number == m_number)
    {
        m_confirmed = result == PublishResult::confirmed;
        m_noQueue = result == PublishResult::noRoute;
        m_publishError = why;
    }
}

void LoopProbe::Returned(const std::string& id)
{
    const auto now = Clock::now();
    const std::lock_guard lock(m_mutex);
    if (!id.starts_with(m_word + "/"))
    {
        ++m_status.strangers;
        QEL_LOG(
            vtx::LevelNotice,
            "a loop probe of another process came from queue %s: left by an earlier one, or does "
            "another agent use this queue?",
            m_queue.c_str());
        return;
    }
    if (m_status.failuresInARow != 0)
    {
        QEL_LOG(vtx::LevelStatus, "the loop probe came back: messages of queue %s arrive again", m_queue.c_str());
    }
    if (id == m_word + "/" + std::to_string(m_number) && m_awaited)
    {
        m_awaited = false;
        m_status.lastRoundTrip = now - m_sentAt;
        m_roundTrips.Observe(m_status.lastRoundTrip);
    }
    m_status.state = State::fresh;
    m_status.lastReturn = std::chrono::system_clock::now();
    m_status.failuresInARow = 0;
    m_status.error.clear();
    m_returnedAt = now;
}

void LoopProbe::OnDeadline(std::uint64_t number)
{
    std::uint64_t failuresInARow = 0;
    bool noQueue = false;
    {
        const std::lock_guard lock(m_mutex);
        if (number != m_number || !m_awaited || m_overdue)
        {
            return;
        }
        noQueue = m_noQueue;
        if (noQueue)
        {
            // The broker can lose a queue that it was still making when we asked for it again, and says nothing.
            failuresInARow = ++m_status.failuresInARow;
            Fail("the loop probe finds no queue " + m_queue);
        }
        else if (!m_confirmed)
        {
            Fail(
                "the loop probe could not be published: " +
                (m_publishError.empty() ? std::string("the broker has not confirmed it") : m_publishError));
            return;
        }
        else if (m_actions.arrivals() != m_arrivals || m_actions.isSaturated())
        {
            m_arrivals = m_actions.arrivals();
            m_status.state = State::behind;
            m_actions.after(m_settings.deadline, [this, number] { OnDeadline(number); });
            return;
        }
        else
        {
            failuresInARow = ++m_status.failuresInARow;
            Fail(
                "the loop probe has not come back within " + std::to_string(m_settings.deadline.count()) +
                " s: no message comes from queue " + m_queue + " (does another consumer hold it?)");
        }
    }
    if (failuresInARow == 1 && !noQueue)
    {
        m_actions.consumeAgain();
    }
    else if (IsPowerOfTwo(failuresInARow))
    {
        m_actions.reconnect();
    }
}

void LoopProbe::Fail(const std::string& why)
{
    m_overdue = true;
    ++m_status.failed;
    if (m_status.error != why)
    {
        QEL_LOG(vtx::LevelWarning, "%s", why.c_str());
    }
    m_status.state = State::failed;
    m_status.error = why;
}

LoopProbeStatus LoopProbe::Status() const
{
    const std::lock_guard lock(m_mutex);
    LoopProbeStatus status = m_status;
    status.roundTrips = m_roundTrips.Read();
    return status;
}

std::string LoopProbe::NotReady() const
{
    const std::lock_guard lock(m_mutex);
    switch (m_status.state)
    {
    case State::off:
    case State::behind:
        return {};
    case State::waiting:
        return "the loop probe has not come back yet";
    case State::failed:
        return m_status.error;
    case State::fresh:
        break;
    }
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_returnedAt);
    if (age <= 2 * m_settings.interval + m_settings.deadline)
    {
        return {};
    }
    return "the loop probe last came back " + std::to_string(age.count()) + " s ago";
}

} // namespace VtxQel

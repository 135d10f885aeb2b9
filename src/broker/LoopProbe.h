#pragma once

#include "common/LatencyHistogram.h"
#include "common/Publisher.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace VtxQel
{

/** When loop probes are sent. */
struct LoopProbeSettings
{
    /** Time from one probe to the next; 0 sends none. */
    std::chrono::seconds interval{30};
    /** How long a probe may take. */
    std::chrono::seconds deadline{10};
};

/** What the loop probe knows at one moment. */
struct LoopProbeStatus
{
    enum class State
    {
        off,
        /** Sent, or about to be, since the connection was made. */
        waiting,
        /** The last one came back. */
        fresh,
        /** Late, but the queue's messages keep coming, or the agent holds all that may be sent ahead. */
        behind,
        /** Late, and nothing comes from the queue; or it could not be published. */
        failed
    };
    State state = State::off;
    std::optional<std::chrono::system_clock::time_point> lastReturn;
    std::chrono::nanoseconds lastRoundTrip{0};
    LatencySnapshot roundTrips;
    std::uint64_t failed = 0;
    std::uint64_t failuresInARow = 0;
    /** Probes of somebody else that came from our queue. */
    std::uint64_t strangers = 0;
    /** Why the last one failed. */
    std::string error;
};

/** What the loop probe works with. Nothing may block; the last two are called without a lock. */
struct LoopProbeActions
{
    std::function<void(OutgoingMessage message, PublishCompletion completion)> publish;
    std::function<void(std::chrono::steady_clock::duration delay, std::function<void()> task)> after;
    /** How many messages have come from the queue. */
    std::function<std::uint64_t()> arrivals;
    /** Whether nothing can come because we hold all that we may. */
    std::function<bool()> isSaturated;
    std::function<void()> consumeAgain;
    std::function<void()> reconnect;
};

/**
 * LoopProbe finds a consumer that silently is none: heartbeats show that a connection lives, not that messages come.
 *
 * It publishes a message to the agent's own queue and waits for it. One that the broker has confirmed and that does not
 * come back, while nothing else comes either, is a failure: after the first in a row the queue is consumed anew, after
 * the 2nd, 4th, 8th … the connection is made anew. At once it is made anew when the broker finds no such queue: with
 * the queue its bindings are gone. Any thread. The object outlives the tasks that it has given to `after`.
 */
class LoopProbe
{
  public:
    LoopProbe(LoopProbeSettings settings, std::string queue, LoopProbeActions actions);

    /** Connected and consuming: probes from now on. */
    void Start();
    /** The connection is gone; what is on its way does not count. */
    void Pause();
    /** A message of the probe's type came from the queue. @param id its message-id. */
    void Returned(const std::string& id);

    LoopProbeStatus Status() const;
    /** Why the agent is not to be called ready; empty when nothing speaks against it. */
    std::string NotReady() const;

  private:
    using Clock = std::chrono::steady_clock;
    using State = LoopProbeStatus::State;

    void Send(std::uint64_t session);
    void OnPublished(std::uint64_t number, PublishResult result, const std::string& why);
    void OnDeadline(std::uint64_t number);
    void Fail(const std::string& why);

    const LoopProbeSettings m_settings;
    const std::string m_queue;
    const LoopProbeActions m_actions;
    /** Tells our probes from those of other processes. */
    const std::string m_word;

    mutable std::mutex m_mutex;
    /** Guarded by m_mutex, like everything below. */
    LoopProbeStatus m_status;
    LatencyHistogram m_roundTrips;
    /** Counts the connections, so that a task of an earlier one does nothing. */
    std::uint64_t m_session = 0;
    /** The last probe sent, and whether it is still awaited. */
    std::uint64_t m_number = 0;
    bool m_awaited = false;
    /** It has failed; a return is still welcome. */
    bool m_overdue = false;
    bool m_confirmed = false;
    /** The broker says that there is no such queue. */
    bool m_noQueue = false;
    std::string m_publishError;
    Clock::time_point m_sentAt;
    std::uint64_t m_arrivals = 0;
    Clock::time_point m_returnedAt;
};

} // namespace VtxQel

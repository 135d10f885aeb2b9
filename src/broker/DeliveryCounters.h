#pragma once

#include "common/LatencyHistogram.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace VtxQel
{

/** The lanes, by what they carry. */
enum class LaneKind : std::size_t
{
    /** Pings and reassign hints. */
    control,
    /** Application init configurations, one at a time and in order. */
    configuration,
    /** Everything else from the priority queue. */
    priority,
    /** The rest. */
    normal
};
constexpr std::size_t LANE_COUNT = 4;

/** How a delivery ended; of several receivers' outcomes the last one of this list counts. */
enum class Outcome : std::size_t
{
    /** Taken by everybody it is for. */
    done,
    /** Moved to a parking queue for at least one receiver. */
    parked,
    /** Moved to the dead-letter queue for at least one receiver. */
    dead,
    /** Left to the queue's own dead-letter exchange. */
    rejected,
    /** Not settled by us: its connection ended or the agent stops, and the broker delivers it again. */
    returned
};
constexpr std::size_t OUTCOME_COUNT = 5;

/** Why messages are given up, in classes that do not depend on what others write. */
enum class DeadReason : std::size_t
{
    /** The application said so, or had it too often. */
    application,
    /** Nobody takes it. */
    noApplication,
    /** A ping, hint or configuration that was refused. */
    controlRefused,
    /** Its handling ended with an exception each time. */
    handlingFailed,
    /** It could not be decoded or is over a limit. */
    unreadable,
    /** The dead-letter or parking queue does not take a copy. */
    copyRefused
};
constexpr std::size_t DEAD_REASON_COUNT = 6;

/** One lane's counts at one moment. */
struct LaneStatus
{
    std::uint64_t received = 0;
    std::array<std::uint64_t, OUTCOME_COUNT> settled{};
    std::uint64_t failures = 0;
    LatencySnapshot latency;

    std::uint64_t InFlight() const;
};

/** What became of all deliveries, at one moment. */
struct DeliveryStatus
{
    std::array<LaneStatus, LANE_COUNT> lanes;
    std::array<std::uint64_t, DEAD_REASON_COUNT> deadLetters{};
    std::uint64_t pingsAnswered = 0;
    std::uint64_t pingsFailed = 0;
    LatencySnapshot pings;
};

/** Counts deliveries on their way. Any thread may call; nothing locks, waits or allocates. */
class DeliveryCounters
{
  public:
    void Received(LaneKind lane);
    /** @param latency the time from the delivery to its settlement; nothing for one that was not settled by us. */
    void Settled(LaneKind lane, Outcome outcome, std::chrono::nanoseconds latency);
    void Pinged(Outcome outcome, std::chrono::nanoseconds latency);
    void Failed(LaneKind lane);
    void DeadLettered(DeadReason reason);

    DeliveryStatus Read() const;

  private:
    using Counter = std::atomic<std::uint64_t>;
    struct Lane
    {
        Counter received{0};
        std::array<Counter, OUTCOME_COUNT> settled{};
        Counter failures{0};
        LatencyHistogram latency;
    };

    Lane& At(LaneKind lane) { return m_lanes[static_cast<std::size_t>(lane)]; }

    std::array<Lane, LANE_COUNT> m_lanes;
    std::array<Counter, DEAD_REASON_COUNT> m_deadLetters{};
    Counter m_pingsAnswered{0};
    Counter m_pingsFailed{0};
    LatencyHistogram m_pings;
};

} // namespace VtxQel

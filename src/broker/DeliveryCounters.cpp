#include "broker/DeliveryCounters.h"

#include <numeric>

namespace VtxQel
{

namespace
{

void Count(std::atomic<std::uint64_t>& counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

std::uint64_t LaneStatus::InFlight() const
{
    const std::uint64_t ended = std::accumulate(settled.begin(), settled.end(), std::uint64_t{0});
    return received > ended ? received - ended : 0;
}

void DeliveryCounters::Received(LaneKind lane)
{
    Count(At(lane).received);
}

void DeliveryCounters::Settled(LaneKind lane, Outcome outcome, std::chrono::nanoseconds latency)
{
    Count(At(lane).settled[static_cast<std::size_t>(outcome)]);
    if (outcome != Outcome::returned)
    {
        At(lane).latency.Observe(latency);
    }
}

void DeliveryCounters::Pinged(Outcome outcome, std::chrono::nanoseconds latency)
{
    if (outcome == Outcome::done)
    {
        Count(m_pingsAnswered);
        m_pings.Observe(latency);
    }
    else if (outcome != Outcome::returned)
    {
        Count(m_pingsFailed);
    }
}

void DeliveryCounters::Failed(LaneKind lane)
{
    Count(At(lane).failures);
}

void DeliveryCounters::DeadLettered(DeadReason reason)
{
    Count(m_deadLetters[static_cast<std::size_t>(reason)]);
}

DeliveryStatus DeliveryCounters::Read() const
{
    DeliveryStatus status;
    for (std::size_t lane = 0; lane < LANE_COUNT; ++lane)
    {
        // What is settled is read first: what comes in between is then in flight and not less than nothing.
        for (std::size_t outcome = 0; outcome < OUTCOME_COUNT; ++outcome)
        {
            status.lanes[lane].settled[outcome] = m_lanes[lane].settled[outcome];
        }
        status.lanes[lane].received = m_lanes[lane].received;
        status.lanes[lane].failures = m_lanes[lane].failures;
        status.lanes[lane].latency = m_lanes[lane].latency.Read();
    }
    for (std::size_t reason = 0; reason < DEAD_REASON_COUNT; ++reason)
    {
        status.deadLetters[reason] = m_deadLetters[reason];
    }
    status.pingsAnswered = m_pingsAnswered;
    status.pingsFailed = m_pingsFailed;
    status.pings = m_pings.Read();
    return status;
}

} // namespace VtxQel

#include "broker/DeliveryCounters.h"

#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

using namespace std::chrono_literals;

TEST(DeliveryCounters, WhatIsReceivedAndNotSettledIsInFlight)
{
    DeliveryCounters counters;
    counters.Received(LaneKind::priority);
    counters.Received(LaneKind::priority);
    counters.Settled(LaneKind::priority, Outcome::parked, 3ms);
    const DeliveryStatus status = counters.Read();
    const LaneStatus& lane = status.lanes[static_cast<std::size_t>(LaneKind::priority)];
    EXPECT_EQ(lane.received, 2U);
    EXPECT_EQ(lane.settled[static_cast<std::size_t>(Outcome::parked)], 1U);
    EXPECT_EQ(lane.InFlight(), 1U);
    EXPECT_EQ(lane.latency.sum, 3ms);
    EXPECT_EQ(status.lanes[static_cast<std::size_t>(LaneKind::normal)].received, 0U);
}

TEST(DeliveryCounters, WhatTheBrokerDeliversAgainHasNoLatency)
{
    DeliveryCounters counters;
    counters.Received(LaneKind::normal);
    counters.Settled(LaneKind::normal, Outcome::returned, 1h);
    const LaneStatus lane = counters.Read().lanes[static_cast<std::size_t>(LaneKind::normal)];
    EXPECT_EQ(lane.InFlight(), 0U);
    EXPECT_EQ(lane.latency.Count(), 0U);
}

TEST(DeliveryCounters, APingIsAnsweredFailedOrComesAgain)
{
    DeliveryCounters counters;
    counters.Pinged(Outcome::done, 2ms);
    counters.Pinged(Outcome::dead, 5s);
    counters.Pinged(Outcome::returned, 5s);
    const DeliveryStatus status = counters.Read();
    EXPECT_EQ(status.pingsAnswered, 1U);
    EXPECT_EQ(status.pingsFailed, 1U);
    EXPECT_EQ(status.pings.sum, 2ms);
}

TEST(DeliveryCounters, DeadLettersCountByReason)
{
    DeliveryCounters counters;
    counters.DeadLettered(DeadReason::unreadable);
    counters.DeadLettered(DeadReason::unreadable);
    counters.DeadLettered(DeadReason::application);
    const DeliveryStatus status = counters.Read();
    EXPECT_EQ(status.deadLetters[static_cast<std::size_t>(DeadReason::unreadable)], 2U);
    EXPECT_EQ(status.deadLetters[static_cast<std::size_t>(DeadReason::application)], 1U);
}

} // namespace
} // namespace VtxQel

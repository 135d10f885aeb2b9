#include "broker/LinkMoveScene.h"
#include "broker/NumberedLoad.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <string>

namespace VtxQel
{

/** What becomes of a steady stream of messages, for a type of queue. */
class LinkMoveLoad : public LinkMove, public testing::WithParamInterface<const char*>
{
  protected:
    QueueSpec Stream(bool singleActive) const
    {
        QueueSpec queue = Queue(m_queue + (singleActive ? ".own" : ".application"), 1000);
        queue.arguments = {{"x-queue-type", RmqValue::String(GetParam())}};
        if (singleActive)
        {
            queue.arguments.emplace_back("x-single-active-consumer", RmqValue::Boolean(true));
        }
        return queue;
    }
};

TEST_P(LinkMoveLoad, NothingIsLostOrComesTwiceWithinOneBroker)
{
    for (const bool singleActive : {true, false})
    {
        const QueueSpec queue = Stream(singleActive);
        DesiredTopology desired;
        (singleActive ? desired.ownQueues : desired.applicationQueues) = {queue};
        SettlingListener listener;
        listener.SetDesired(desired);
        BrokerLink link(ThreeFrontEnds(), listener);
        listener.SettleWith(link);
        link.Start();
        ASSERT_TRUE(listener.WaitForRestored(1));
        NumberedLoad load(NodeUrl(), queue.name, 1000);
        for (std::size_t i = 1; i <= 2; ++i)
        {
            ASSERT_TRUE(Eventually([&] { return listener.Count() > 300 * i; }));
            link.MoveTo(i % 2 == 1 ? SAME : HERE);
            ASSERT_TRUE(listener.WaitForRestored(i + 1));
            ASSERT_EQ(listener.WaitForLeft(i), 0U);
        }
        const std::size_t published = load.Stop();
        ASSERT_TRUE(listener.WaitForAll(published));
        const Arrivals arrivals = listener.Judge(published);
        std::printf(
            "%s, %s consumer, 2 moves under 1,000 messages/s: %s\n", GetParam(), singleActive ? "single active" : "any",
            arrivals.ToString().c_str());
        EXPECT_EQ(arrivals.lost, 0U);
        EXPECT_EQ(arrivals.duplicates, 0U);
        EXPECT_LE(arrivals.outOfOrder, arrivals.redelivered) << "what was not under way at a move is in order";
        EXPECT_EQ(link.Status().moves, 2U);
        EXPECT_EQ(listener.DisconnectCount(), 0U);
    }
}

TEST_P(LinkMoveLoad, WhatIsPublishedToTheBrokerThatWasLeftWaitsForOurReturn)
{
    const QueueSpec queue = Stream(true);
    DesiredTopology desired;
    desired.ownQueues = {queue};
    SettlingListener listener;
    listener.SetDesired(desired);
    BrokerLink link(ThreeFrontEnds(), listener);
    listener.SettleWith(link);
    link.Start();
    ASSERT_TRUE(listener.WaitForRestored(1));
    NumberedLoad load(NodeUrl(), queue.name, 500);
    ASSERT_TRUE(Eventually([&] { return listener.Count() > 200; }));
    link.MoveTo(ELSEWHERE);
    ASSERT_TRUE(listener.WaitForRestored(2));
    ASSERT_EQ(listener.WaitForLeft(1), 0U);
    // What is published to the one that was left waits there until we are back.
    const std::size_t meanwhile = listener.Count();
    ASSERT_TRUE(Eventually([&] { return Outsider(HERE)->Count(queue.name) > 100; }));
    EXPECT_EQ(listener.Count(), meanwhile);
    link.MoveTo(HERE);
    const std::size_t published = load.Stop();
    ASSERT_TRUE(listener.WaitForAll(published));
    const Arrivals arrivals = listener.Judge(published);
    std::printf("%s, to another broker and back: %s\n", GetParam(), arrivals.ToString().c_str());
    EXPECT_EQ(arrivals.lost, 0U);
    EXPECT_EQ(arrivals.duplicates, 0U);
}

TEST_P(LinkMoveLoad, EveryPublicationIsConfirmedOnce)
{
    QueueSpec queue = Stream(true);
    queue.prefetch = 0;
    m_desired.ownQueues.push_back(queue);
    Connect();
    std::atomic<bool> stopping{false};
    auto publishing = std::async(
        std::launch::async,
        [&]
        {
            std::uint32_t published = 0;
            for (; !stopping; ++published)
            {
                m_link->Send(queue.name, std::to_string(published));
            }
            return published;
        });
    for (std::size_t i = 1; i <= 2; ++i)
    {
        MoveTo(i % 2 == 1 ? SAME : HERE);
        ASSERT_EQ(Listener().WaitForLeft(i), 0U);
    }
    stopping = true;
    const std::uint32_t published = publishing.get();
    EXPECT_EQ(m_link->Count(queue.name), published);
    std::printf("%s: %u publications during 2 moves, none lost, none twice\n", GetParam(), published);
}

INSTANTIATE_TEST_SUITE_P(
    LinkMove, LinkMoveLoad, testing::Values("classic", "quorum"), [](const auto& each) { return each.param; });

} // namespace VtxQel

#include "broker/LinkHarness.h"
#include "broker/NumberedLoad.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <future>
#include <memory>
#include <vector>

namespace VtxQel
{

using testing::HasSubstr;

/** A classic queue with its home on another node of the cluster, which goes down and comes back. */
class LinkCluster : public testing::Test
{
  public:
    LinkCluster()
    {
        m_desired.exchanges = {{m_exchange, "topic", false}};
        m_desired.ownQueues = {m_queue};
        LinkSettings atHome = NodeSettings();
        atHome.urls = {OtherNodeUrl()};
        DesiredTopology declared = m_desired;
        declared.ownQueues.front().prefetch = 0;
        TestLink made(declared, atHome);
    }

    ~LinkCluster() override { StartHome(); }
    LinkCluster(const LinkCluster&) = delete;
    LinkCluster& operator=(const LinkCluster&) = delete;

  protected:
    static void StopHome() { OtherRabbitmqctl("stop_app"); }
    static void StartHome() { OtherRabbitmqctl("start_app"); }

    const std::string m_exchange = Unique("exchange");
    const QueueSpec m_queue = Queue(Unique("queue"), 10);
    DesiredTopology m_desired;
};

TEST_F(LinkCluster, WhatIsAskedOfAQueueWhoseHomeIsDownWaitsForIt)
{
    TestLink link({m_desired.exchanges, {}, {}, {}});
    const Binding binding{m_queue.name, m_exchange, "topic"};
    const std::vector<std::function<RequestResult(std::chrono::milliseconds)>> requests = {
        [&](auto deadline) { return link->Bind({binding}, deadline).front(); },
        [&](auto deadline) {
            return link->Unbind({m_queue.name, m_exchange, "never bound"}, deadline);
        },
        [&](auto deadline) { return link->DeclareQueue(m_queue, deadline); }};
    StopHome();
    for (const auto& request : requests)
    {
        const RequestResult tooEarly = request(std::chrono::seconds(3));
        EXPECT_EQ(tooEarly.answer, Answer::unanswered);
        EXPECT_EQ(tooEarly.code, 404);
        EXPECT_THAT(tooEarly.text, HasSubstr("home node"));
    }
    std::vector<std::future<RequestResult>> answers;
    answers.reserve(requests.size());
    for (const auto& request : requests)
    {
        answers.push_back(std::async(std::launch::async, request, PATIENCE));
    }
    StartHome();
    for (auto& answer : answers)
    {
        EXPECT_EQ(answer.get().answer, Answer::ok);
    }
    EXPECT_THAT(Rabbitmqctl("list_bindings routing_key"), HasSubstr("topic\n"));
    link.Send(m_queue.name, "consumed");
    EXPECT_TRUE(link.Listener().WaitForDeliveries(1));
}

TEST_F(LinkCluster, AnOwnQueueWhoseHomeIsDownIsRestoredWhenItIsBack)
{
    m_desired.bindings = {{m_queue.name, m_exchange, "topic"}};
    StopHome();
    RecordingListener listener;
    listener.SetDesired(m_desired);
    BrokerLink link(NodeSettings(), listener);
    link.Start();
    const auto failure = listener.WaitForRestoreFailed(1);
    ASSERT_TRUE(failure);
    EXPECT_THAT(failure->first, HasSubstr(m_queue.name));
    EXPECT_EQ(failure->second.answer, Answer::unanswered);
    EXPECT_EQ(failure->second.code, 404);
    EXPECT_EQ(listener.RestoredCount(), 0U);
    StartHome();
    EXPECT_TRUE(listener.WaitForRestored(1));
}

TEST_F(LinkCluster, AConsumerThatDiedWithItsQueuesHomeIsMadeAgain)
{
    TestLink link(m_desired);
    ASSERT_TRUE(link.Listener().WaitForRestored(1));
    StopHome();
    EXPECT_EQ(link.Listener().WaitForCancelled().value_or(""), m_queue.name);
    StartHome();
    ASSERT_TRUE(link.Listener().WaitForRestored(2));
    link.Send(m_queue.name, "again");
    EXPECT_TRUE(link.Listener().WaitForDeliveries(1));
}

/** The gap is a figure: printed, not asserted. */
TEST_F(LinkCluster, MovesBetweenItsNodesLoseNothing)
{
    QueueSpec queue = Queue(Unique("quorum"), 1000);
    queue.arguments = {
        {"x-queue-type", RmqValue::String("quorum")}, {"x-single-active-consumer", RmqValue::Boolean(true)}};
    m_desired.ownQueues = {queue};
    LinkSettings settings = NodeSettings();
    settings.urls = {NodeUrl(), OtherNodeUrl()};
    SettlingListener listener;
    listener.SetDesired(m_desired);
    BrokerLink link(settings, listener);
    listener.SettleWith(link);
    link.Start();
    ASSERT_TRUE(listener.WaitForRestored(1));
    NumberedLoad load(NodeUrl(), queue.name, 500);
    for (std::size_t move = 1; move <= 2; ++move)
    {
        ASSERT_TRUE(Eventually([&] { return listener.Count() > 200 * move; }));
        link.MoveTo(move % 2);
        ASSERT_TRUE(listener.WaitForRestored(move + 1));
        ASSERT_EQ(link.Status().urlIndex, move % 2);
        ASSERT_TRUE(listener.WaitForLeft(move));
    }
    const std::size_t published = load.Stop();
    ASSERT_TRUE(listener.WaitForAll(published));
    const Arrivals arrivals = listener.Judge(published);
    std::printf("2 moves between nodes under 500 messages/s: %s\n", arrivals.ToString().c_str());
    EXPECT_EQ(arrivals.lost, 0U);
    EXPECT_EQ(listener.DisconnectCount(), 0U);
}

} // namespace VtxQel

#include "broker/LinkHarness.h"
#include "broker/RawClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>

namespace VtxQel
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/** One link with an exchange and a consumed queue of its own. */
class LinkTopology : public testing::Test
{
  protected:
    void Connect(LinkSettings settings = NodeSettings())
    {
        DesiredTopology desired;
        desired.exchanges = {{m_exchange, "topic", false}};
        desired.ownQueues = {Queue(m_queue, 10)};
        m_link = std::make_unique<TestLink>(desired, std::move(settings));
    }

    TestLink& Link()
    {
        if (!m_link)
        {
            Connect();
        }
        return *m_link;
    }

    /** Logs in as a user who may do only what these patterns (configure, write, read) allow. */
    void ConnectAs(const std::string& permissions)
    {
        Connect();
        m_link.reset();
        const std::string user = Unique("user");
        Rabbitmqctl("add_user " + user + " secret");
        Rabbitmqctl("set_permissions " + user + " " + permissions);
        LinkSettings settings = NodeSettings();
        settings.user = user;
        settings.password = "secret";
        m_link = std::make_unique<TestLink>(DesiredTopology{}, settings);
    }

    RequestResult Bind(const std::string& topic)
    {
        return Link()->Bind({{m_queue, m_exchange, topic}}, DEADLINE).front();
    }
    RequestResult Unbind(const std::string& topic) { return Link()->Unbind({m_queue, m_exchange, topic}, DEADLINE); }
    std::string Bindings() { return Rabbitmqctl("list_bindings source_name destination_name routing_key"); }
    std::string Line(const std::string& topic) { return m_exchange + "\t" + m_queue + "\t" + topic + "\n"; }

    const std::string m_exchange = Unique("exchange");
    const std::string m_queue = Unique("queue");
    std::unique_ptr<TestLink> m_link;
};

TEST_F(LinkTopology, BindAndUnbindAreIdempotent)
{
    EXPECT_EQ(Bind("a.b").answer, Answer::ok);
    EXPECT_EQ(Bind("a.b").answer, Answer::ok);
    EXPECT_THAT(Bindings(), HasSubstr(Line("a.b")));
    EXPECT_EQ(Unbind("a.b").answer, Answer::ok);
    EXPECT_EQ(Unbind("a.b").answer, Answer::ok);
    EXPECT_THAT(Bindings(), Not(HasSubstr(Line("a.b"))));
}

TEST_F(LinkTopology, TheEmptyTopicAndTheLongestAreTopics)
{
    for (const std::string& topic : {std::string(), std::string(255, 't')})
    {
        EXPECT_EQ(Bind(topic).answer, Answer::ok);
        EXPECT_EQ(Unbind(topic).answer, Answer::ok);
    }
}

TEST_F(LinkTopology, NamesThatCannotBeSentLeaveTheConnectionAlone)
{
    for (const std::string& topic : {std::string(256, 't'), std::string("\xFF\xFE")})
    {
        EXPECT_EQ(Bind(topic).answer, Answer::refused);
        EXPECT_EQ(Unbind(topic).answer, Answer::ok);
    }
    EXPECT_EQ(Bind("fine").answer, Answer::ok);
    EXPECT_EQ(Link()->Status().reconnects, 0U);
}

TEST_F(LinkTopology, UnbindOfWhatDoesNotExistIsOk)
{
    EXPECT_EQ(Link()->Unbind({"no-queue", m_exchange, "t"}, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link()->Unbind({m_queue, "no-exchange", "t"}, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link()->Unbind({"no-queue", "no-exchange", "t"}, DEADLINE).answer, Answer::ok);
}

TEST_F(LinkTopology, UnbindFromTheDefaultExchangeIsRefused)
{
    const RequestResult result = Link()->Unbind({m_queue, "", "t"}, DEADLINE);
    EXPECT_EQ(result.answer, Answer::refused);
    EXPECT_EQ(result.code, 403);
    EXPECT_EQ(Bind("still.works").answer, Answer::ok);
}

TEST_F(LinkTopology, WithoutPermissionEverythingIsRefused)
{
    ConnectAs("'^$' '^$' '^$'");
    EXPECT_EQ(Bind("t").code, 403);
    EXPECT_EQ(Bind("t").answer, Answer::refused);
    EXPECT_EQ(Unbind("t").code, 403);
    EXPECT_EQ(Unbind("t").answer, Answer::refused);
    EXPECT_EQ(Link()->DeclareQueue(Queue(Unique("new"), 1), DEADLINE).code, 403);
}

TEST_F(LinkTopology, UnbindFromAnotherConnectionsExclusiveQueueIsRefused)
{
    Link();
    const std::string queue = Unique("exclusive");
    RawClient other(NodeUrl());
    other.DeclareExclusive(queue);
    other.Bind(queue, m_exchange, "t");
    const RequestResult result = Link()->Unbind({queue, m_exchange, "t"}, DEADLINE);
    EXPECT_EQ(result.answer, Answer::refused);
    EXPECT_EQ(result.code, 405);
}

TEST_F(LinkTopology, BindToWhatDoesNotExistIsRefused)
{
    const RequestResult noExchange = Link()->Bind({{m_queue, "no-exchange", "t"}}, DEADLINE).front();
    EXPECT_EQ(noExchange.answer, Answer::refused);
    EXPECT_EQ(noExchange.code, 404);
    const RequestResult noQueue = Link()->Bind({{"no-queue", m_exchange, "t"}}, DEADLINE).front();
    EXPECT_EQ(noQueue.answer, Answer::refused);
    EXPECT_EQ(noQueue.code, 404);
}

TEST_F(LinkTopology, BindToAnOwnQueueThatSomebodyDeletedMakesItAgain)
{
    Link();
    Rabbitmqctl("delete_queue " + m_queue);
    EXPECT_EQ(Bind("t").answer, Answer::ok);
    EXPECT_THAT(Bindings(), HasSubstr(Line("t")));
}

TEST_F(LinkTopology, ABindThatNobodyWaitsForAnyMoreIsNotRepeated)
{
    Link();
    Rabbitmqctl("delete_queue " + m_queue);
    // Given up before the broker can have said that the queue is missing.
    EXPECT_EQ(
        Link()->Bind({{m_queue, m_exchange, "given.up"}}, std::chrono::milliseconds(0)).front().answer,
        Answer::unanswered);
    EXPECT_EQ(Unbind("given.up").answer, Answer::ok);
    EXPECT_EQ(Bind("wanted").answer, Answer::ok);
    EXPECT_THAT(Bindings(), AllOf(HasSubstr(Line("wanted")), Not(HasSubstr(Line("given.up")))));
}

TEST_F(LinkTopology, ARefusedRequestDoesNotDisturbThoseBehindIt)
{
    Link();
    std::vector<Binding> wanted(60);
    for (int i = 0; i < 60; ++i)
    {
        wanted[static_cast<std::size_t>(i)] = {
            m_queue, i % 5 == 2 ? "no-exchange" : m_exchange, "t" + std::to_string(i)};
    }
    const std::vector<RequestResult> results = Link()->Bind(wanted, DEADLINE);
    ASSERT_EQ(results.size(), 60U);
    for (int i = 0; i < 60; ++i)
    {
        EXPECT_EQ(results[static_cast<std::size_t>(i)].answer, i % 5 == 2 ? Answer::refused : Answer::ok) << i;
    }
    const std::string bindings = Bindings();
    for (int i = 0; i < 60; ++i)
    {
        EXPECT_EQ(bindings.find(Line("t" + std::to_string(i))) != std::string::npos, i % 5 != 2) << i;
    }
}

TEST_F(LinkTopology, DeclareQueueConsumesFromIt)
{
    const std::string queue = Unique("app");
    EXPECT_EQ(Link()->DeclareQueue(Queue(queue, 10), DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link()->DeclareQueue(Queue(queue, 10), DEADLINE).answer, Answer::ok);
    Link().Send(queue, "hello");
    ASSERT_TRUE(Link().Listener().WaitForDeliveries(1));
    EXPECT_EQ(Link().Listener().Delivery(0).queue, queue);
    EXPECT_EQ(
        Rabbitmqctl("list_consumers queue_name").find(queue), Rabbitmqctl("list_consumers queue_name").rfind(queue));
}

TEST_F(LinkTopology, DeclareQueueWithoutPrefetchDoesNotConsume)
{
    const std::string queue = Unique("parked");
    EXPECT_EQ(Link()->DeclareQueue(Queue(queue, 0), DEADLINE).answer, Answer::ok);
    EXPECT_THAT(Rabbitmqctl("list_consumers queue_name"), Not(HasSubstr(queue)));
}

TEST_F(LinkTopology, DeclareQueueThatContradictsTheBrokerIsRefused)
{
    QueueSpec other = Queue(m_queue, 0);
    other.arguments = {{"x-max-length", RmqValue::Integer(5)}};
    const RequestResult inequivalent = Link()->DeclareQueue(other, DEADLINE);
    EXPECT_EQ(inequivalent.answer, Answer::refused);
    EXPECT_EQ(inequivalent.code, 406);
    EXPECT_EQ(Link()->DeclareQueue(Queue("amq.mine", 0), DEADLINE).code, 403);
    QueueSpec passive = Queue(Unique("missing"), 1);
    passive.passive = true;
    EXPECT_EQ(Link()->DeclareQueue(passive, DEADLINE).code, 404);
}

TEST_F(LinkTopology, DeclareQueueWaitsForAPredecessorToGo)
{
    Link();
    const std::string queue = Unique("exclusive");
    auto other = std::make_unique<RawClient>(NodeUrl());
    other->DeclareExclusive(queue);
    auto result = std::async(std::launch::async, [&] { return Link()->DeclareQueue(Queue(queue, 1), DEADLINE); });
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    other.reset();
    EXPECT_EQ(result.get().answer, Answer::ok);
}

TEST_F(LinkTopology, DeclareQueueDoesNotWaitForALivingNeighbourForEver)
{
    LinkSettings settings = NodeSettings();
    settings.heartbeat = std::chrono::seconds(0);
    Connect(settings);
    const std::string exclusive = Unique("exclusive");
    RawClient other(NodeUrl());
    other.DeclareExclusive(exclusive);
    const RequestResult locked = Link()->DeclareQueue(Queue(exclusive, 1), DEADLINE);
    EXPECT_EQ(locked.answer, Answer::refused);
    EXPECT_EQ(locked.code, 405);

    const std::string consumed = Unique("consumed");
    EXPECT_EQ(Link()->DeclareQueue(Queue(consumed, 0), DEADLINE).answer, Answer::ok);
    other.ConsumeExclusively(consumed);
    const RequestResult inUse = Link()->DeclareQueue(Queue(consumed, 1), DEADLINE);
    EXPECT_EQ(inUse.answer, Answer::refused);
    EXPECT_EQ(inUse.code, 403);
}

TEST_F(LinkTopology, CancelQueueKeepsTheQueueAndWhatIsUnsettled)
{
    Link().Send(m_queue, "one");
    ASSERT_TRUE(Link().Listener().WaitForDeliveries(1));
    EXPECT_EQ(Link()->CancelQueue(m_queue, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link()->CancelQueue(m_queue, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link()->CancelQueue("never-consumed", DEADLINE).answer, Answer::ok);
    Link().Send(m_queue, "two");
    EXPECT_EQ(Link().Count(m_queue), 1U) << "the unsettled one went back, or the second was delivered";

    Link()->Settle(Link().Listener().Delivery(0).tag, SettleAs::ack);
    EXPECT_EQ(Link()->DeclareQueue(Queue(m_queue, 10), DEADLINE).answer, Answer::ok);
    ASSERT_TRUE(Link().Listener().WaitForDeliveries(2));
    EXPECT_EQ(Link().Listener().Delivery(1).body, "two");
    EXPECT_EQ(Link()->ReleaseQueue(m_queue, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link().Count(m_queue), 1U) << "the first was settled after the cancel and came back nevertheless";
}

TEST_F(LinkTopology, WhatIsSettledAfterTheCancelIsSettledForAQuorumQueueToo)
{
    constexpr std::size_t COUNT = 1000;
    QueueSpec quorum = Queue(m_queue + ".quorum", COUNT);
    quorum.arguments = {{"x-queue-type", RmqValue::String("quorum")}};
    ASSERT_EQ(Link()->DeclareQueue(quorum, DEADLINE).answer, Answer::ok);
    Link().SendMany(quorum.name, COUNT);
    ASSERT_TRUE(Link().Listener().WaitForDeliveries(COUNT));
    EXPECT_EQ(Link()->CancelQueue(quorum.name, DEADLINE).answer, Answer::ok);
    std::vector<IncomingMessage> all = Link().Listener().Deliveries();
    // Every second one first: a command to the queue for each.
    for (const std::size_t first : {1U, 0U})
    {
        for (std::size_t i = first; i < all.size(); i += 2)
        {
            Link()->Settle(all[i].tag, SettleAs::ack);
        }
    }
    const std::string line = quorum.name + "\t";
    EXPECT_TRUE(Eventually(
        [&]
        { return Rabbitmqctl("list_queues name messages_unacknowledged").find(line + "0\n") != std::string::npos; }));
    EXPECT_EQ(Link().Count(quorum.name), 0U) << "acknowledged messages came back when the channel was closed";
}

TEST_F(LinkTopology, ReleaseQueueGivesEverythingBackInOrder)
{
    for (int i = 0; i < 5; ++i)
    {
        Link().Send(m_queue, std::to_string(i));
    }
    ASSERT_TRUE(Link().Listener().WaitForDeliveries(5));
    const IncomingMessage second = Link().Listener().Delivery(1);
    Link()->Settle(second.tag, SettleAs::ack);
    EXPECT_EQ(Link()->ReleaseQueue(m_queue, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link().Count(m_queue), 4U);
    // Too late: it is with the broker again.
    Link()->Settle(Link().Listener().Delivery(0).tag, SettleAs::ack);

    EXPECT_EQ(Link()->DeclareQueue(Queue(m_queue, 10), DEADLINE).answer, Answer::ok);
    ASSERT_TRUE(Link().Listener().WaitForDeliveries(9));
    std::string order;
    for (std::size_t i = 5; i < 9; ++i)
    {
        order += Link().Listener().Delivery(i).body;
    }
    EXPECT_EQ(order, "0234");
    EXPECT_EQ(Link()->ReleaseQueue("never-consumed", DEADLINE).answer, Answer::ok);
}

TEST_F(LinkTopology, CountMessagesCountsWhatIsReady)
{
    const std::string queue = Unique("parked");
    EXPECT_EQ(Link()->DeclareQueue(Queue(queue, 0), DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Link().Count(queue), 0U);
    Link().Send(queue, "x");
    Link().Send(queue, "y");
    EXPECT_EQ(Link().Count(queue), 2U);
    QueueCounts untouched{77, 77};
    EXPECT_EQ(Link()->CountMessages("no-queue", DEADLINE, untouched).code, 404);
    EXPECT_EQ(untouched.ready, 77U);
}

} // namespace VtxQel

#include "broker/LinkHarness.h"
#include "broker/RawClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <utility>

namespace VtxQel
{

using testing::HasSubstr;

/** One link with a consumed queue whose rejected messages end in another queue. */
class LinkDelivery : public testing::Test
{
  protected:
    void Connect(std::uint16_t prefetch = 100, LinkSettings settings = NodeSettings())
    {
        QueueSpec queue = Queue(m_queue, prefetch);
        queue.arguments = {
            {"x-dead-letter-exchange", RmqValue::String("")}, {"x-dead-letter-routing-key", RmqValue::String(m_dead)}};
        DesiredTopology desired;
        desired.ownQueues = {Queue(m_dead, 0), queue};
        m_link = std::make_unique<TestLink>(desired, std::move(settings));
    }

    RecordingListener& Listener() { return m_link->Listener(); }

    const std::string m_queue = Unique("queue");
    const std::string m_dead = Unique("dead");
    std::unique_ptr<TestLink> m_link;
};

TEST_F(LinkDelivery, AMessageArrivesWithEverythingThatItWasPublishedWith)
{
    Connect();
    const RmqTable inner{{"k", RmqValue::String("v")}};
    OutgoingMessage message;
    message.routingKey = m_queue;
    message.body = std::string("a\0b", 3);
    RmqProperties& properties = message.properties;
    properties.type = "type";
    properties.replyTo = "reply";
    properties.correlationId = std::string("\xFF\0", 2);
    properties.appId = "app";
    properties.messageId = "id";
    properties.userId = "guest";
    properties.contentType = "text/plain";
    properties.contentEncoding = "none";
    properties.expiration = "600000";
    properties.deliveryMode = 2;
    properties.priority = 3;
    properties.timestamp = 1700000000;
    properties.headers = {
        {"t", RmqValue::Boolean(true)},
        {"b", {'b', std::int64_t{-1}}},
        {"B", {'B', std::uint64_t{200}}},
        {"s", {'s', std::int64_t{-300}}},
        {"u", {'u', std::uint64_t{60000}}},
        {"I", {'I', std::int64_t{-70000}}},
        {"i", {'i', std::uint64_t{4000000000U}}},
        {"l", RmqValue::Integer(-5000000000)},
        {"f", {'f', 0.5}},
        {"d", {'d', 0.1}},
        {"D", {'D', RmqDecimal{1, 15}}},
        {"S", RmqValue::String("text")},
        {"x", {'x', std::string("\0\1", 2)}},
        {"T", RmqValue::Timestamp(1)},
        {"V", {'V', std::monostate{}}},
        {"F", {'F', inner}},
        {"A", {'A', RmqArray{RmqValue::Integer(1), {'F', inner}}}}};
    const RmqProperties sent = properties;
    EXPECT_EQ(m_link->Publish(message).first, PublishResult::confirmed);
    ASSERT_TRUE(Listener().WaitForDeliveries(1));

    const IncomingMessage received = Listener().Delivery(0);
    EXPECT_EQ(received.queue, m_queue);
    EXPECT_EQ(received.exchange, "");
    EXPECT_EQ(received.routingKey, m_queue);
    EXPECT_FALSE(received.redelivered);
    EXPECT_EQ(received.body, message.body);
    EXPECT_EQ(received.properties->type, sent.type);
    EXPECT_EQ(received.properties->replyTo, sent.replyTo);
    EXPECT_EQ(received.properties->correlationId, sent.correlationId);
    EXPECT_EQ(received.properties->appId, sent.appId);
    EXPECT_EQ(received.properties->messageId, sent.messageId);
    EXPECT_EQ(received.properties->userId, sent.userId);
    EXPECT_EQ(received.properties->contentType, sent.contentType);
    EXPECT_EQ(received.properties->contentEncoding, sent.contentEncoding);
    EXPECT_EQ(received.properties->expiration, sent.expiration);
    EXPECT_EQ(received.properties->deliveryMode, sent.deliveryMode);
    EXPECT_EQ(received.properties->priority, sent.priority);
    EXPECT_EQ(received.properties->timestamp, sent.timestamp);
    EXPECT_EQ(received.properties->headers, sent.headers);
}

TEST_F(LinkDelivery, BodiesOfAnySizeArriveWhole)
{
    Connect();
    std::size_t count = 0;
    for (const std::size_t size : {0U, 131064U, 131065U, 5000000U})
    {
        std::string body(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
        {
            body[i] = static_cast<char>(i * 7 + i / 251);
        }
        m_link->Send(m_queue, body);
        ASSERT_TRUE(Listener().WaitForDeliveries(++count));
        EXPECT_TRUE(Listener().Delivery(count - 1).body == body) << size;
    }
}

TEST_F(LinkDelivery, AcknowledgedMessagesAreGone)
{
    Connect();
    for (int i = 0; i < 20; ++i)
    {
        m_link->Send(m_queue, "x");
    }
    ASSERT_TRUE(Listener().WaitForDeliveries(20));
    // Out of order, with holes that close later.
    for (const unsigned index :
         {3U, 2U, 1U, 9U, 0U, 5U, 4U, 19U, 18U, 17U, 16U, 15U, 14U, 13U, 12U, 11U, 10U, 8U, 7U, 6U})
    {
        (*m_link)->Settle(Listener().Delivery(index).tag, SettleAs::ack);
    }
    EXPECT_EQ((*m_link)->ReleaseQueue(m_queue, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(m_link->Count(m_queue), 0U);
    EXPECT_EQ(m_link->Count(m_dead), 0U);
    EXPECT_EQ((*m_link)->Status().reconnects, 0U);
}

TEST_F(LinkDelivery, RejectedMessagesAreDeadLetteredAndTheirNeighboursAreNot)
{
    Connect();
    for (int i = 0; i < 6; ++i)
    {
        m_link->Send(m_queue, "x");
    }
    ASSERT_TRUE(Listener().WaitForDeliveries(6));
    for (std::size_t i = 6; i-- > 0;)
    {
        (*m_link)->Settle(Listener().Delivery(i).tag, i % 2 == 0 ? SettleAs::reject : SettleAs::ack);
    }
    EXPECT_TRUE(Eventually([&] { return m_link->Count(m_dead) == 3; }));
    EXPECT_EQ((*m_link)->ReleaseQueue(m_queue, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(m_link->Count(m_queue), 0U);
}

TEST_F(LinkDelivery, RequeuedMessagesComeAgain)
{
    Connect();
    m_link->Send(m_queue, "x");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    (*m_link)->Settle(Listener().Delivery(0).tag, SettleAs::requeue);
    ASSERT_TRUE(Listener().WaitForDeliveries(2));
    EXPECT_TRUE(Listener().Delivery(1).redelivered);
}

TEST_F(LinkDelivery, NoMoreThanThePrefetchIsUnsettled)
{
    Connect(3);
    for (int i = 0; i < 5; ++i)
    {
        m_link->Send(m_queue, "x");
    }
    ASSERT_TRUE(Listener().WaitForDeliveries(3));
    EXPECT_EQ(m_link->Count(m_queue), 2U);
    EXPECT_EQ(Listener().DeliveryCount(), 3U);
    (*m_link)->Settle(Listener().Delivery(0).tag, SettleAs::ack);
    ASSERT_TRUE(Listener().WaitForDeliveries(4));
    EXPECT_EQ(m_link->Count(m_queue), 1U);
}

TEST_F(LinkDelivery, ABodyOverTheLimitIsRefusedAndTheNextMessageArrives)
{
    LinkSettings settings = NodeSettings();
    settings.maxBodyBytes = 300000;
    Connect(10, settings);
    TestLink publisher;
    publisher.Send(m_queue, std::string(300001, 'x'));
    publisher.Send(m_queue, std::string(300000, 'y'));
    const auto refused = Listener().WaitForRefused();
    ASSERT_TRUE(refused);
    EXPECT_THAT(refused->second, HasSubstr("over the limit"));
    EXPECT_EQ(refused->first.body, "");
    (*m_link)->Settle(refused->first.tag, SettleAs::reject);
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    EXPECT_EQ(Listener().Delivery(0).body[0], 'y');
    EXPECT_TRUE(Eventually([&] { return publisher.Count(m_dead) == 1; }));
}

TEST_F(LinkDelivery, HostileHeadersAreRefusedAndTheNextMessageArrives)
{
    Connect();
    RawClient(NodeUrl()).PublishNested(m_queue, 15000);
    m_link->Send(m_queue, "harmless");
    const auto refused = Listener().WaitForRefused();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->second, "headers nested too deeply");
    EXPECT_EQ(refused->first.queue, m_queue);
    (*m_link)->Settle(refused->first.tag, SettleAs::reject);
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    EXPECT_EQ(Listener().Delivery(0).body, "harmless");
    EXPECT_EQ((*m_link)->Status().reconnects, 0U);
    EXPECT_TRUE(Eventually([&] { return m_link->Count(m_dead) == 1; }));
}

TEST_F(LinkDelivery, AQueueDeletedUnderItsConsumerIsMadeAgainWithItsBindings)
{
    Connect();
    DesiredTopology desired = Listener().OnConnected();
    desired.bindings = {{m_queue, "amq.topic", m_queue + ".topic"}};
    Listener().SetDesired(desired);
    Rabbitmqctl("delete_queue " + m_queue);
    EXPECT_EQ(Listener().WaitForCancelled(), m_queue);
    ASSERT_TRUE(Listener().WaitForRestored(2));
    OutgoingMessage message;
    message.exchange = "amq.topic";
    message.routingKey = m_queue + ".topic";
    message.mandatory = true;
    EXPECT_EQ(m_link->Publish(message).first, PublishResult::confirmed);
    EXPECT_TRUE(Listener().WaitForDeliveries(1));
    EXPECT_EQ((*m_link)->Status().reconnects, 0U);
}

TEST_F(LinkDelivery, PausedReadingHoldsDeliveriesBack)
{
    Connect();
    (*m_link)->PauseReading(true);
    TestLink publisher;
    // The read that was waiting when the pause began takes what comes first.
    publisher.Send(m_queue, "first");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    publisher.Send(m_queue, "second");
    EXPECT_TRUE(Eventually([&] { return publisher.Count(m_queue) == 0; })) << "the broker has sent it";
    EXPECT_EQ(Listener().DeliveryCount(), 1U);
    (*m_link)->PauseReading(false);
    EXPECT_TRUE(Listener().WaitForDeliveries(2));
}

/** Holds the link's thread up in its first delivery until a test's thread has been there. */
class ListenerThatPauses : public RecordingListener
{
  public:
    void OnDelivery(IncomingMessage&& message) override
    {
        const bool isFirst = DeliveryCount() == 0;
        RecordingListener::OnDelivery(std::move(message));
        if (isFirst)
        {
            link->PauseReading(true);
            std::thread([this] { link->PauseReading(false); }).join();
        }
    }

    BrokerLink* link = nullptr;
};

TEST_F(LinkDelivery, TheLastWordOnReadingCountsWhicheverThreadSaysIt)
{
    DesiredTopology desired;
    desired.ownQueues = {Queue(m_queue, 100)};
    ListenerThatPauses listener;
    listener.SetDesired(desired);
    BrokerLink link(NodeSettings(), listener);
    listener.link = &link;
    link.Start();
    ASSERT_TRUE(listener.WaitForRestored(1));
    TestLink publisher;
    // The read that waits while the thread is held up takes the second one at most.
    for (const char* body : {"first", "second", "third"})
    {
        publisher.Send(m_queue, body);
        EXPECT_TRUE(Eventually([&] { return publisher.Count(m_queue) == 0; })) << "the broker has sent it";
    }
    EXPECT_TRUE(listener.WaitForDeliveries(3));
}

TEST_F(LinkDelivery, StopConsumingLeavesDeliveriesToBeSettled)
{
    Connect();
    m_link->Send(m_queue, "one");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    (*m_link)->StopConsuming();
    EXPECT_TRUE(
        Eventually([&] { return Rabbitmqctl("list_consumers queue_name").find(m_queue) == std::string::npos; }));
    m_link->Send(m_queue, "two");
    EXPECT_EQ(m_link->Count(m_queue), 1U);
    (*m_link)->Settle(Listener().Delivery(0).tag, SettleAs::ack);
    (*m_link)->Stop(std::chrono::seconds(5));
    TestLink other;
    EXPECT_EQ(other.Count(m_queue), 1U);
}

} // namespace VtxQel

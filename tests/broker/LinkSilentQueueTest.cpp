#include "broker/LinkHarness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace VtxQel
{

using testing::HasSubstr;

namespace
{

/** How many channels the node allows on each new connection, for as long as this lives. */
class ChannelMax
{
  public:
    explicit ChannelMax(int count) { Set(count); }
    ~ChannelMax() { Set(2047); }
    ChannelMax(const ChannelMax&) = delete;
    ChannelMax& operator=(const ChannelMax&) = delete;

  private:
    static void Set(int count)
    {
        Rabbitmqctl("eval \"application:set_env(rabbit, channel_max, " + std::to_string(count) + ").\"");
    }
};

} // namespace

/** One link with an own queue, and two applications' queues, of which one is a quorum queue whose leader is stuck. */
class LinkSilentQueue : public testing::Test
{
  public:
    LinkSilentQueue()
    {
        m_desired.exchanges = {{m_exchange, "topic", false}};
        m_desired.ownQueues = {Queue(m_queue, 10)};
        m_desired.bindings = {{m_queue, m_exchange, "kept"}};
        m_desired.applicationQueues = {Queue(m_silent, 10), Queue(m_neighbour, 10)};
        m_desired.applicationQueues[0].arguments = {{"x-queue-type", RmqValue::String("quorum")}};
        m_link = std::make_unique<TestLink>(m_desired, m_settings);
    }

    ~LinkSilentQueue() override { Resume(); }
    LinkSilentQueue(const LinkSilentQueue&) = delete;
    LinkSilentQueue& operator=(const LinkSilentQueue&) = delete;

  protected:
    static LinkSettings Impatient()
    {
        LinkSettings settings = NodeSettings();
        settings.queuePatience = std::chrono::seconds(2);
        return settings;
    }
    RecordingListener& Listener() { return m_link->Listener(); }
    /** The queue's leader answers nothing from now on, as after a crash of the broker right after its creation. */
    void Suspend() { Rabbitmqctl("eval \"sys:suspend('%2F_" + m_silent + "').\""); }
    void Resume() { Rabbitmqctl("eval \"sys:resume('%2F_" + m_silent + "').\""); }
    bool IsOnTrial()
    {
        return Rabbitmqctl("list_connections client_properties").find(m_settings.connectionName + " trial") !=
               std::string::npos;
    }
    bool IsDelivered(const std::string& queue, const std::string& body)
    {
        m_link->Send(queue, body);
        return Eventually(
            [&]
            {
                const auto all = Listener().Deliveries();
                return std::any_of(
                    all.begin(), all.end(),
                    [&](const IncomingMessage& message) { return message.queue == queue && message.body == body; });
            });
    }

    const std::string m_exchange = Unique("exchange");
    const std::string m_queue = Unique("queue");
    const std::string m_silent = Unique("silent");
    const std::string m_neighbour = Unique("neighbour");
    const LinkSettings m_settings = Impatient();
    DesiredTopology m_desired;
    std::unique_ptr<TestLink> m_link;
};

TEST_F(LinkSilentQueue, CostsTheOthersOneReconnectAndIsConsumedWhenItAnswersAgain)
{
    ASSERT_TRUE(IsDelivered(m_silent, "before"));
    Suspend();
    Rabbitmqctl("close_all_connections 'a test wants it'");
    ASSERT_TRUE(Listener().WaitForDisconnect(1));
    ASSERT_TRUE(IsDelivered(m_neighbour, "meanwhile")) << "nobody waits for the silent one";

    EXPECT_THAT(Listener().WaitForDisconnect(2).value_or(""), HasSubstr(m_silent));
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_FALSE((*m_link)->Status().restored) << "one queue is missing";
    ASSERT_TRUE(Eventually([&] { return IsOnTrial(); }));
    ASSERT_TRUE(Eventually([&] { return !IsOnTrial(); })) << "a trial has an end";
    ASSERT_TRUE(IsDelivered(m_queue, "own"));
    ASSERT_TRUE(IsDelivered(m_neighbour, "application"));
    EXPECT_EQ((*m_link)->Bind({{m_queue, m_exchange, "more"}}, DEADLINE).front().answer, Answer::ok);

    Resume();
    ASSERT_TRUE(Listener().WaitForRestored(3));
    EXPECT_TRUE((*m_link)->Status().restored);
    EXPECT_TRUE(IsDelivered(m_silent, "after"));
    EXPECT_EQ((*m_link)->Status().reconnects, 2U);
}

TEST_F(LinkSilentQueue, ARequestForItIsUnansweredAtOnceOnceItWasTried)
{
    ASSERT_EQ((*m_link)->CancelQueue(m_silent, DEADLINE).answer, Answer::ok);
    Suspend();
    const RequestResult first = (*m_link)->DeclareQueue(m_desired.applicationQueues[0], DEADLINE);
    EXPECT_EQ(first.answer, Answer::unanswered);
    EXPECT_THAT(first.text, HasSubstr(m_silent));
    const RequestResult second = (*m_link)->DeclareQueue(m_desired.applicationQueues[0], PATIENCE);
    EXPECT_EQ(second.answer, Answer::unanswered);
    EXPECT_THAT(second.text, HasSubstr("does not answer for queue " + m_silent));
    EXPECT_EQ((*m_link)->Status().reconnects, 1U);
}

TEST_F(LinkSilentQueue, ThatIsCancelledIsForgotten)
{
    Suspend();
    Rabbitmqctl("close_all_connections 'a test wants it'");
    ASSERT_TRUE(Listener().WaitForDisconnect(2));
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_EQ((*m_link)->CancelQueue(m_silent, DEADLINE).answer, Answer::ok);
    ASSERT_TRUE(Listener().WaitForRestored(3)) << "nothing is missing any more";
    Resume();
    EXPECT_EQ((*m_link)->DeclareQueue(m_desired.applicationQueues[0], DEADLINE).answer, Answer::ok);
    EXPECT_TRUE(IsDelivered(m_silent, "wanted again"));
}

TEST_F(LinkSilentQueue, IsFoundOutWhenTheOthersUseAllChannels)
{
    // One for requests, one for echos, and one for each of the three queues.
    const ChannelMax five(5);
    Suspend();
    Rabbitmqctl("close_all_connections 'a test wants it'");
    ASSERT_TRUE(Listener().WaitForDisconnect(1));
    EXPECT_THAT(Listener().WaitForDisconnect(2).value_or(""), HasSubstr(m_silent));
    ASSERT_TRUE(Listener().WaitForRestored(2));
    ASSERT_EQ((*m_link)->DeclareQueue(Queue(Unique("third"), 1), DEADLINE).answer, Answer::ok);
    const RequestResult fourth = (*m_link)->DeclareQueue(Queue(Unique("fourth"), 1), std::chrono::seconds(2));
    EXPECT_NE(fourth.answer, Answer::ok);
    EXPECT_THAT(fourth.text, HasSubstr("no more channels"));
    EXPECT_EQ(Listener().DisconnectCount(), 2U);
}

TEST_F(LinkSilentQueue, IsNotOneThatIsConsumedAnewAgainAndAgain)
{
    const QueueSpec queue = Queue(Unique("restless"), 10);
    // Longer than it takes to find a queue silent.
    const auto end = std::chrono::steady_clock::now() + 2 * m_settings.queuePatience;
    while (std::chrono::steady_clock::now() < end)
    {
        ASSERT_EQ((*m_link)->DeclareQueue(queue, DEADLINE).answer, Answer::ok);
        ASSERT_EQ((*m_link)->CancelQueue(queue.name, DEADLINE).answer, Answer::ok);
        // The channel of a cancelled consumer is only closed after a second: there are enough of them at this pace.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(Listener().DisconnectCount(), 0U);
}

} // namespace VtxQel

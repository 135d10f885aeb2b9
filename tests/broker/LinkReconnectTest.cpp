#include "broker/LinkHarness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

using testing::HasSubstr;
using testing::Not;

/** One link with exchange, own queue, binding and an application's queue; the broker ends its connections. */
class LinkReconnect : public testing::Test
{
  public:
    LinkReconnect()
    {
        m_desired.exchanges = {{m_exchange, "topic", false}};
        m_desired.ownQueues = {Queue(m_queue, 10)};
        m_desired.bindings = {{m_queue, m_exchange, "kept"}};
        m_desired.applicationQueues = {Queue(m_application, 10)};
        m_link = std::make_unique<TestLink>(m_desired);
    }

    ~LinkReconnect() override { Rabbitmqctl("resume_listeners"); }
    LinkReconnect(const LinkReconnect&) = delete;
    LinkReconnect& operator=(const LinkReconnect&) = delete;

  protected:
    RecordingListener& Listener() { return m_link->Listener(); }
    static void CloseConnections() { Rabbitmqctl("close_all_connections 'a test wants it'"); }

    /** The broker ends every connection and takes no new one until ResumeListeners. */
    static void CutOff()
    {
        Rabbitmqctl("suspend_listeners");
        CloseConnections();
    }
    static void ResumeListeners() { Rabbitmqctl("resume_listeners"); }
    std::string Bindings() { return Rabbitmqctl("list_bindings source_name destination_name routing_key"); }
    std::string Line(const std::string& topic) { return m_exchange + "\t" + m_queue + "\t" + topic + "\n"; }

    const std::string m_exchange = Unique("exchange");
    const std::string m_queue = Unique("queue");
    const std::string m_application = Unique("application");
    DesiredTopology m_desired;
    std::unique_ptr<TestLink> m_link;
};

TEST_F(LinkReconnect, EverythingIsRestored)
{
    CloseConnections();
    EXPECT_THAT(
        Listener().WaitForDisconnect(1).value_or(""), testing::AllOf(HasSubstr("320"), HasSubstr("a test wants it")));
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_EQ((*m_link)->Status().reconnects, 1U);
    m_link->Send(m_queue, "own");
    m_link->Send(m_application, "application");
    EXPECT_TRUE(Listener().WaitForDeliveries(2));
}

TEST_F(LinkReconnect, WhatVanishedMeanwhileIsMadeAgain)
{
    CutOff();
    Rabbitmqctl("delete_queue " + m_queue);
    Rabbitmqctl("delete_queue " + m_application);
    ResumeListeners();
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_THAT(Bindings(), HasSubstr(Line("kept")));
    m_link->Send(m_queue, "own");
    m_link->Send(m_application, "application");
    EXPECT_TRUE(Listener().WaitForDeliveries(2));
}

TEST_F(LinkReconnect, TagsOfTheOldConnectionAreDropped)
{
    m_link->Send(m_queue, "again");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    const DeliveryTag stale = Listener().Delivery(0).tag;
    CloseConnections();
    ASSERT_TRUE(Listener().WaitForRestored(2));
    ASSERT_TRUE(Listener().WaitForDeliveries(2));
    const IncomingMessage again = Listener().Delivery(1);
    EXPECT_TRUE(again.redelivered);
    EXPECT_NE(again.tag.generation, stale.generation);
    (*m_link)->Settle(stale, SettleAs::ack);
    EXPECT_EQ((*m_link)->ReleaseQueue(m_queue, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(m_link->Count(m_queue), 1U) << "the old tag acknowledged the new delivery";
}

TEST_F(LinkReconnect, RequestsMadeWhileDisconnectedAreCarriedOutLater)
{
    CutOff();
    ASSERT_TRUE(Listener().WaitForDisconnect(1));
    auto bound = std::async(
        std::launch::async,
        [&] {
            return (*m_link)->Bind({{m_queue, m_exchange, "late"}}, DEADLINE).front();
        });
    auto declared =
        std::async(std::launch::async, [&] { return (*m_link)->DeclareQueue(Queue(m_queue + ".late", 5), DEADLINE); });
    EXPECT_EQ(bound.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    ResumeListeners();
    EXPECT_EQ(bound.get().answer, Answer::ok);
    EXPECT_EQ(declared.get().answer, Answer::ok);
    EXPECT_THAT(Bindings(), HasSubstr(Line("late")));
}

TEST_F(LinkReconnect, BindsThatLoseTheirConnectionAreAllAnsweredAndCanBeUndone)
{
    constexpr std::size_t COUNT = 50;
    std::vector<Binding> many;
    for (std::size_t number = 0; number < COUNT; ++number)
    {
        many.push_back({m_queue, m_exchange, "many." + std::to_string(number)});
    }
    std::atomic<bool> lost{false};
    auto bound = std::async(
        std::launch::async,
        [&]
        {
            std::size_t failed = 0;
            while (!lost)
            {
                const std::vector<RequestResult> answers = (*m_link)->Bind(many, DEADLINE);
                failed += static_cast<std::size_t>(std::count_if(
                    answers.begin(), answers.end(),
                    [](const RequestResult& result) { return result.answer != Answer::ok; }));
            }
            return failed;
        });
    CloseConnections();
    EXPECT_TRUE(Listener().WaitForDisconnect(1));
    lost = true;
    EXPECT_EQ(bound.get(), 0U);
    EXPECT_THAT(Bindings(), testing::AllOf(HasSubstr(Line(many.front().topic)), HasSubstr(Line(many.back().topic))));
    for (const Binding& binding : many)
    {
        EXPECT_EQ((*m_link)->Unbind(binding, DEADLINE).answer, Answer::ok);
    }
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_THAT(Bindings(), Not(HasSubstr("many.")));
}

TEST_F(LinkReconnect, WhatIsUnboundWhileDisconnectedIsNotRestored)
{
    CutOff();
    ASSERT_TRUE(Listener().WaitForDisconnect(1));
    auto unbound = std::async(
        std::launch::async,
        [&] {
            return (*m_link)->Unbind({m_queue, m_exchange, "kept"}, DEADLINE);
        });
    EXPECT_EQ((*m_link)->CancelQueue(m_application, DEADLINE).answer, Answer::ok) << "the consumer died already";
    EXPECT_EQ(unbound.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
    ResumeListeners();
    EXPECT_EQ(unbound.get().answer, Answer::ok);
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_THAT(Bindings(), Not(HasSubstr(Line("kept"))));
    EXPECT_THAT(Rabbitmqctl("list_consumers queue_name"), Not(HasSubstr(m_application)));
}

TEST_F(LinkReconnect, ARequestWithoutAnAnswerEndsAtItsDeadline)
{
    CutOff();
    ASSERT_TRUE(Listener().WaitForDisconnect(1));
    const RequestResult result = (*m_link)->Unbind({m_queue, m_exchange, "kept"}, std::chrono::milliseconds(200));
    EXPECT_EQ(result.answer, Answer::unanswered);
    EXPECT_THAT(result.text, HasSubstr("no answer within the deadline"));
}

TEST_F(LinkReconnect, AnApplicationsQueueThatIsRefusedIsToldAndTheRestComes)
{
    CutOff();
    DesiredTopology changed = m_desired;
    changed.applicationQueues[0].arguments = {{"x-max-length", RmqValue::Integer(1)}};
    changed.applicationQueues.push_back(Queue(m_application + ".second", 5));
    changed.bindings.push_back({m_queue, "no-exchange", "t"});
    Listener().SetDesired(changed);
    ResumeListeners();
    ASSERT_TRUE(Listener().WaitForRestored(2));
    const auto binding = Listener().WaitForRestoreFailed(1);
    ASSERT_TRUE(binding);
    EXPECT_THAT(binding->first, HasSubstr("no-exchange"));
    EXPECT_EQ(binding->second.answer, Answer::refused);
    const auto queue = Listener().WaitForRestoreFailed(2);
    ASSERT_TRUE(queue);
    EXPECT_EQ(queue->first, "queue '" + m_application + "'");
    EXPECT_EQ(queue->second.code, 406);
    EXPECT_THAT(Rabbitmqctl("list_consumers queue_name"), HasSubstr(m_application + ".second"));
}

TEST_F(LinkReconnect, AnOwnQueueThatIsRefusedIsTriedUntilItCanBeMade)
{
    CutOff();
    DesiredTopology changed = m_desired;
    changed.ownQueues[0].arguments = {{"x-max-length", RmqValue::Integer(9)}};
    Listener().SetDesired(changed);
    ResumeListeners();
    const auto failed = Listener().WaitForRestoreFailed(1);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->second.code, 406);
    EXPECT_FALSE((*m_link)->Status().restored);
    Rabbitmqctl("delete_queue " + m_queue);
    EXPECT_TRUE(Listener().WaitForRestored(2));
}

TEST_F(LinkReconnect, ABrokerThatIsSilentAboutAnOwnQueueIsSoonAskedAgain)
{
    const std::string queue = Unique("own");
    DesiredTopology desired;
    desired.ownQueues = {Queue(queue, 10)};
    desired.ownQueues[0].arguments = {{"x-queue-type", RmqValue::String("quorum")}};
    TestLink link(desired);
    Rabbitmqctl("eval \"sys:suspend('%2F_" + queue + "').\"");
    CloseConnections();
    EXPECT_TRUE(link.Listener().WaitForDisconnect(1));
    for (const std::size_t number : {2U, 3U})
    {
        EXPECT_THAT(link.Listener().WaitForDisconnect(number).value_or(""), HasSubstr("own queues"));
    }
    Rabbitmqctl("eval \"sys:resume('%2F_" + queue + "').\"");
    ASSERT_TRUE(link.Listener().WaitForRestored(2));
    link.Send(queue, "delivered");
    EXPECT_TRUE(link.Listener().WaitForDeliveries(1));
}

TEST_F(LinkReconnect, ABrokerIsGivenTimeToMakeTheOwnQueuesAtFirst)
{
    const std::string queue = Unique("own");
    DesiredTopology desired;
    desired.ownQueues = {Queue(queue, 10)};
    desired.ownQueues[0].arguments = {{"x-queue-type", RmqValue::String("quorum")}};
    {
        const TestLink made(desired);
    }
    Rabbitmqctl("eval \"sys:suspend('%2F_" + queue + "').\"");
    LinkSettings settings = NodeSettings();
    settings.ownQueuePatience = std::chrono::milliseconds(100);
    settings.queuePatience = std::chrono::seconds(2);
    RecordingListener listener;
    listener.SetDesired(desired);
    BrokerLink link(settings, listener);
    link.Start();
    EXPECT_THAT(listener.WaitForDisconnect(1).value_or(""), HasSubstr("while queues and bindings are restored"));
    Rabbitmqctl("eval \"sys:resume('%2F_" + queue + "').\"");
    EXPECT_TRUE(listener.WaitForRestored(1));
}

TEST_F(LinkReconnect, ABrokerThatRestartsIsFoundAgain)
{
    m_link->Send(m_queue, "x");
    Rabbitmqctl("stop_app");
    ASSERT_TRUE(Listener().WaitForDisconnect(1));
    EXPECT_FALSE((*m_link)->Status().connected);
    Rabbitmqctl("start_app");
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_THAT(Bindings(), HasSubstr(Line("kept")));
}

} // namespace VtxQel

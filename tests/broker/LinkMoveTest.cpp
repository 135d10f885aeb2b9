#include "broker/LinkMoveScene.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <string>
#include <vector>

namespace VtxQel
{

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST_F(LinkMove, EverythingIsThereAndTheOldOneIsLeft)
{
    Connect();
    MoveTo(ELSEWHERE);
    EXPECT_EQ(Listener().DisconnectCount(), 0U);
    EXPECT_EQ(Link().Status().moves, 1U);
    EXPECT_EQ(Link().Status().reconnects, 0U);
    EXPECT_THAT(
        ListElsewhere("bindings source_name destination_name routing_key"),
        HasSubstr(m_exchange + "\t" + m_queue + "\ttopic\n"));
    EXPECT_THAT(
        ListElsewhere("consumers queue_name"), AllOf(HasSubstr(m_queue + "\n"), HasSubstr(m_application + "\n")));
    const auto outsider = Outsider(ELSEWHERE);
    outsider->Send(m_queue, "own");
    outsider->Send(m_application, "application");
    EXPECT_TRUE(Listener().WaitForDeliveries(2));
    EXPECT_EQ(Listener().WaitForLeft(1), 0U);
    EXPECT_THAT(Rabbitmqctl("list_consumers queue_name"), Not(HasSubstr(m_queue)));
}

TEST_F(LinkMove, WhatWasDeliveredIsSettledWhereItCameFrom)
{
    Connect();
    m_link->Send(m_queue, "one");
    m_link->Send(m_application, "two");
    ASSERT_TRUE(Listener().WaitForDeliveries(2));
    MoveTo(ELSEWHERE);
    EXPECT_FALSE(Listener().Delivery(0).source->IsOver());
    Link().Settle(Listener().Delivery(0).tag, SettleAs::ack);
    Link().Settle(Listener().Delivery(1).tag, SettleAs::ack);
    EXPECT_EQ(Listener().WaitForLeft(1), 0U);
    EXPECT_TRUE(Listener().Delivery(0).source->IsOver());
    const auto outsider = Outsider(HERE);
    EXPECT_EQ(outsider->Count(m_queue), 0U);
    EXPECT_EQ(outsider->Count(m_application), 0U);
}

TEST_F(LinkMove, WhatIsNotSettledInTimeIsGivenBack)
{
    LinkSettings settings = ThreeFrontEnds();
    settings.drainPatience = std::chrono::milliseconds(300);
    Connect(settings);
    m_link->Send(m_queue, "settled");
    m_link->Send(m_queue, "kept");
    ASSERT_TRUE(Listener().WaitForDeliveries(2));
    MoveTo(ELSEWHERE);
    Link().Settle(Listener().Delivery(0).tag, SettleAs::ack);
    EXPECT_EQ(Listener().WaitForLeft(1), 1U);
    EXPECT_TRUE(Listener().Delivery(1).source->IsOver());
    // Too late: it is with the broker again.
    Link().Settle(Listener().Delivery(1).tag, SettleAs::ack);
    EXPECT_EQ(Outsider(HERE)->Count(m_queue), 1U);
}

TEST_F(LinkMove, WhatIsReleasedIsGivenBackWhereItCameFrom)
{
    Connect();
    m_link->Send(m_application, "kept");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    MoveTo(ELSEWHERE);
    EXPECT_EQ(Link().ReleaseQueue(m_application, DEADLINE).answer, Answer::ok);
    EXPECT_EQ(Outsider(HERE)->Count(m_application), 1U);
    EXPECT_EQ(Listener().WaitForLeft(1), 0U) << "nothing keeps the connection any more";
}

TEST_F(LinkMove, BackAndForth)
{
    Connect();
    const auto here = Outsider(HERE);
    const auto elsewhere = Outsider(ELSEWHERE);
    for (std::size_t round = 1; round <= 2; ++round)
    {
        MoveTo(ELSEWHERE);
        ASSERT_EQ(Listener().WaitForLeft(2 * round - 1), 0U);
        MoveTo(HERE);
        ASSERT_EQ(Listener().WaitForLeft(2 * round), 0U);
    }
    here->Send(m_queue, "x");
    EXPECT_TRUE(Listener().WaitForDeliveries(1));
    elsewhere->Send(m_queue, "stays until somebody comes");
    EXPECT_EQ(elsewhere->Count(m_queue), 1U);
}

TEST_F(LinkMove, WhatIsLackingAnywayDoesNotKeepTheLinkHere)
{
    m_desired.bindings.push_back({"no-such-queue", m_exchange, "topic"});
    Connect();
    ASSERT_TRUE(Listener().WaitForRestoreFailed(1));
    for (const std::size_t target : {ELSEWHERE, HERE})
    {
        MoveTo(target);
        ASSERT_TRUE(Listener().WaitForLeft(target == HERE ? 2 : 1));
    }
    EXPECT_TRUE(Listener().WaitForRestoreFailed(3)) << "it is reported for each front end";
}

TEST_F(LinkMove, HintsDuringAMoveChangeNothing)
{
    Connect();
    for (int i = 0; i < 10; ++i)
    {
        Link().MoveTo(ELSEWHERE);
    }
    ASSERT_TRUE(Listener().WaitForRestored(2));
    ASSERT_EQ(Listener().WaitForLeft(1), 0U);
    EXPECT_EQ(Link().Status().moves, 1U);
    EXPECT_EQ(Link().Status().failedMoves, 0U);
}

TEST_F(LinkMove, AnAnswerGoesWhereTheQuestionCameFrom)
{
    Connect();
    m_link->Send(m_queue, "question");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    const IncomingMessage question = Listener().Delivery(0);
    const std::string answers = Unique("answers");
    const auto outsider = Outsider(HERE);
    ASSERT_EQ((*outsider)->DeclareQueue(Queue(answers, 0), DEADLINE).answer, Answer::ok);
    MoveTo(ELSEWHERE);

    OutgoingMessage answer;
    answer.routingKey = answers;
    answer.mandatory = true;
    EXPECT_EQ(m_link->Publish(answer).first, PublishResult::noRoute) << "the queue is not there";
    const auto answered = [&]
    {
        std::promise<PublishResult> result;
        Link().PublishBack(
            question, answer, [&](PublishResult published, const std::string&) { result.set_value(published); });
        return result.get_future().get();
    };
    EXPECT_EQ(answered(), PublishResult::confirmed);
    EXPECT_EQ(outsider->Count(answers), 1U);
    Link().Settle(question.tag, SettleAs::ack);
    ASSERT_EQ(Listener().WaitForLeft(1), 0U);
    EXPECT_EQ(answered(), PublishResult::noRoute) << "there is only one front end now";
}

TEST_F(LinkMove, WhatIsChangedMeanwhileIsThereAfterwards)
{
    Connect();
    std::atomic<bool> stopping{false};
    auto changes = std::async(
        std::launch::async,
        [&]
        {
            // As the agent does: what is wanted is said before it is asked for.
            DesiredTopology desired = m_desired;
            std::vector<Binding>& bindings = desired.bindings;
            for (std::size_t i = 0; !stopping; ++i)
            {
                const Binding binding{m_queue, m_exchange, "t" + std::to_string(i)};
                bindings.push_back(binding);
                Listener().SetDesired(desired);
                EXPECT_EQ(Link().Bind({binding}, DEADLINE).front().answer, Answer::ok);
                if (bindings.size() > 5)
                {
                    const Binding gone = bindings.front();
                    bindings.erase(bindings.begin());
                    Listener().SetDesired(desired);
                    EXPECT_EQ(Link().Unbind(gone, DEADLINE).answer, Answer::ok);
                }
            }
            return bindings;
        });
    auto queues = std::async(
        std::launch::async,
        [&]
        {
            const QueueSpec queue = Queue(m_application + ".more", 5);
            std::size_t rounds = 0;
            for (; !stopping; ++rounds)
            {
                EXPECT_EQ(Link().DeclareQueue(queue, DEADLINE).answer, Answer::ok);
                EXPECT_EQ(Link().CancelQueue(queue.name, DEADLINE).answer, Answer::ok);
            }
            return rounds;
        });
    constexpr std::size_t MOVES = 3;
    for (std::size_t i = 1; i <= MOVES; ++i)
    {
        MoveTo(i % 2 == 1 ? ELSEWHERE : HERE);
        // This broker answers such haste with an internal error now and then; then there is nothing left to be drained.
        const std::size_t lost = Listener().DisconnectCount();
        EXPECT_TRUE(i <= lost || Listener().WaitForLeft(i - lost));
    }
    stopping = true;
    const std::vector<Binding> wanted = changes.get();
    EXPECT_GT(queues.get(), 0U);
    const std::string found = ListElsewhere("bindings source_name destination_name routing_key");
    for (const Binding& binding : wanted)
    {
        EXPECT_THAT(found, HasSubstr(m_exchange + "\t" + m_queue + "\t" + binding.topic + "\n"));
    }
    EXPECT_THAT(ListElsewhere("consumers queue_name"), Not(HasSubstr(m_application + ".more")));
    std::printf("%zu moves under changes of bindings and queues\n", MOVES);
}

} // namespace VtxQel

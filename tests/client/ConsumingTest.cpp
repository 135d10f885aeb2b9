#include "apps/TemporaryFolder.h"
#include "qel/Client.h"
#include "tools/FakeAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qel
{

namespace
{

namespace v1 = apps::v1;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using VtxQel::FakeAgent;

/** Reads verdicts as an agent does that has `delivered`: until the instance wants to go and has answered everything. */
std::vector<v1::Verdict> ReadVerdicts(FakeAgent::Stream& stream, std::size_t delivered)
{
    std::vector<v1::Verdict> verdicts;
    v1::AttachRequest request;
    bool wantsToGo = false;
    while ((!wantsToGo || verdicts.size() < delivered) && stream.Read(&request))
    {
        wantsToGo = wantsToGo || request.has_detach();
        verdicts.insert(verdicts.end(), request.verdicts().verdicts().begin(), request.verdicts().verdicts().end());
    }
    return verdicts;
}

/** An agent that delivers and a client without long pauses, whose lines are noted. */
class Consuming : public ::testing::Test
{
  protected:
    Consuming()
    {
        m_options.socket = m_folder.Path() + "/web.sock";
        m_options.firstPause = std::chrono::milliseconds(1);
        m_options.longestPause = std::chrono::milliseconds(20);
        m_options.log = [this](const std::string& line)
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(line);
        };
    }

    void StartAgent(FakeAgent::Script script) { m_agent.emplace(m_options.socket, std::move(script)); }

    /** An agent that delivers so many in one batch, and keeps the verdicts. */
    void DeliverAndKeepVerdicts(std::uint64_t count)
    {
        StartAgent(
            [this, count](const v1::Hello& hello, FakeAgent::Stream& stream)
            {
                m_hello = hello;
                stream.Write(FakeAgent::Welcome());
                stream.Write(FakeAgent::Batch(1, count));
                m_verdicts = ReadVerdicts(stream, count);
                return grpc::Status::OK;
            });
    }

    /** Runs until the handler has had so many messages. */
    template <typename Handler>
    void RunFor(int messages, Handler handler)
    {
        Client client("web", m_options);
        std::atomic<int> left{messages};
        client.Run(
            [&](const Message& message)
            {
                if (--left == 0)
                {
                    client.Stop();
                }
                return handler(message);
            });
        // So that nothing is written by the agent's thread any more.
        m_agent.reset();
    }

    VtxQel::TemporaryFolder m_folder;
    Options m_options;
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    v1::Hello m_hello;
    std::vector<v1::Verdict> m_verdicts;
    std::optional<FakeAgent> m_agent;
};

} // namespace

TEST_F(Consuming, AHandlerWithoutAResultMeansDone)
{
    m_options.instance = "one";
    m_options.window = 7;
    DeliverAndKeepVerdicts(3);
    std::vector<std::string> bodies;
    RunFor(3, [&bodies](const Message& message) { bodies.push_back(message.body); });
    EXPECT_THAT(bodies, ElementsAre("1", "2", "3"));
    EXPECT_EQ("one", m_hello.instance());
    EXPECT_EQ(7U, m_hello.window());
    ASSERT_EQ(3U, m_verdicts.size());
    for (std::size_t index = 0; index < 3; ++index)
    {
        EXPECT_EQ(index + 1, m_verdicts[index].delivery_id());
        EXPECT_EQ(v1::Verdict::DONE, m_verdicts[index].kind());
    }
}

TEST_F(Consuming, AVerdictIsReturned)
{
    DeliverAndKeepVerdicts(4);
    RunFor(
        4,
        [](const Message& message)
        {
            const std::vector<Verdict> answers = {
                Verdict::Done(), Verdict::Retry(std::chrono::milliseconds(250)), Verdict::Dead("unreadable"),
                Verdict::Retry(std::chrono::hours(1))};
            return answers.at(std::stoul(message.body) - 1);
        });
    ASSERT_EQ(4U, m_verdicts.size());
    EXPECT_EQ(v1::Verdict::DONE, m_verdicts[0].kind());
    EXPECT_EQ(v1::Verdict::RETRY, m_verdicts[1].kind());
    EXPECT_EQ(250U, m_verdicts[1].retry_delay_ms());
    EXPECT_EQ(v1::Verdict::DEAD, m_verdicts[2].kind());
    EXPECT_EQ("unreadable", m_verdicts[2].reason());
    EXPECT_EQ(900000U, m_verdicts[3].retry_delay_ms()) << "the longest that the agent takes";
}

TEST_F(Consuming, AnExceptionMeansLaterAndDeadMeansNever)
{
    DeliverAndKeepVerdicts(3);
    RunFor(
        3,
        [](const Message& message)
        {
            if (message.body == "1")
            {
                throw std::runtime_error("the disk is full");
            }
            if (message.body == "2")
            {
                throw Dead(std::string(2000, 'x'));
            }
            throw 3;
        });
    ASSERT_EQ(3U, m_verdicts.size());
    EXPECT_EQ(v1::Verdict::RETRY, m_verdicts[0].kind());
    EXPECT_EQ(1000U, m_verdicts[0].retry_delay_ms());
    EXPECT_EQ(v1::Verdict::DEAD, m_verdicts[1].kind());
    EXPECT_EQ(std::string(1024, 'x'), m_verdicts[1].reason());
    EXPECT_EQ(v1::Verdict::RETRY, m_verdicts[2].kind());
    EXPECT_THAT(m_lines, ElementsAre(HasSubstr("the disk is full"), HasSubstr("no std::exception")));
}

TEST_F(Consuming, TheDelayOfARetryDoublesWithTheTriesUpToAMinute)
{
    StartAgent(
        [this](const v1::Hello&, FakeAgent::Stream& stream)
        {
            stream.Write(FakeAgent::Welcome());
            v1::AttachResponse response = FakeAgent::Batch(1, 3);
            response.mutable_deliveries()->mutable_deliveries(1)->set_tries(3);
            response.mutable_deliveries()->mutable_deliveries(2)->set_tries(4000000000);
            stream.Write(response);
            m_verdicts = ReadVerdicts(stream, 3);
            return grpc::Status::OK;
        });
    RunFor(3, [](const Message&) { return Verdict::Retry(); });
    ASSERT_EQ(3U, m_verdicts.size());
    EXPECT_EQ(1000U, m_verdicts[0].retry_delay_ms());
    EXPECT_EQ(8000U, m_verdicts[1].retry_delay_ms());
    EXPECT_EQ(60000U, m_verdicts[2].retry_delay_ms());
}

TEST_F(Consuming, AttachesAgainHoweverTheStreamEnds)
{
    std::atomic<int> streams{0};
    StartAgent(
        [&streams](const v1::Hello&, FakeAgent::Stream& stream)
        {
            const int number = ++streams;
            if (number == 2)
            {
                return grpc::Status(grpc::StatusCode::UNAVAILABLE, "the agent is stopping");
            }
            stream.Write(FakeAgent::Welcome());
            stream.Write(FakeAgent::Batch(1, 1));
            v1::AttachRequest verdict;
            stream.Read(&verdict);
            return number == 1 ? grpc::Status::OK : grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "wrong");
        });
    RunFor(3, [](const Message&) {});
    EXPECT_EQ(4, streams) << "one of them gave no message";
    ASSERT_EQ(3U, m_lines.size());
    EXPECT_THAT(m_lines[0], HasSubstr("detached: the agent has ended the stream"));
    EXPECT_THAT(m_lines[1], HasSubstr("not attached: the agent is stopping"));
    EXPECT_THAT(m_lines[2], HasSubstr("detached: wrong"));
}

TEST_F(Consuming, WaitsForAnAgentThatIsAway)
{
    Client client("web", m_options);
    std::thread application([&client] { client.Run([&client](const Message&) { client.Stop(); }); });
    DeliverAndKeepVerdicts(1);
    application.join();
    m_agent.reset();
    EXPECT_EQ(1U, m_verdicts.size());
}

TEST_F(Consuming, IsToldWhenTheAgentRefusesItForGood)
{
    StartAgent([](const v1::Hello&, FakeAgent::Stream&)
               { return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "shorten the instance"); });
    Client client("web", m_options);
    EXPECT_THROW(client.Run([](const Message&) {}), AttachError);
}

TEST_F(Consuming, StopFinishesWhatIsInHand)
{
    DeliverAndKeepVerdicts(50);
    Client client("web", m_options);
    int taken = 0;
    client.Run(
        [&](const Message&)
        {
            ++taken;
            client.Stop();
        });
    m_agent.reset();
    EXPECT_EQ(50, taken);
    EXPECT_EQ(50U, m_verdicts.size());
}

TEST_F(Consuming, StopLeavesWhatItHasNoTimeFor)
{
    m_options.stopPatience = std::chrono::milliseconds(0);
    StartAgent(
        [this](const v1::Hello&, FakeAgent::Stream& stream)
        {
            stream.Write(FakeAgent::Welcome());
            stream.Write(FakeAgent::Batch(1, 50));
            v1::AttachRequest request;
            while (stream.Read(&request))
            {
                m_verdicts.insert(
                    m_verdicts.end(), request.verdicts().verdicts().begin(), request.verdicts().verdicts().end());
            }
            return grpc::Status::OK;
        });
    RunFor(1, [](const Message&) {});
    EXPECT_EQ(1U, m_verdicts.size());
}

TEST_F(Consuming, StopEndsAClientThatHasNothingToDo)
{
    std::latch attached(1);
    m_options.onConfiguration = [&attached](const Configuration&) { attached.count_down(); };
    DeliverAndKeepVerdicts(0);
    Client client("web", m_options);
    std::thread application([&client] { client.Run([](const Message&) {}); });
    attached.wait();
    client.Stop();
    application.join();
    client.Run([](const Message&) {});
}

TEST_F(Consuming, WorksOnSeveralMessagesAtOnce)
{
    m_options.threads = 3;
    DeliverAndKeepVerdicts(3);
    std::latch together(3);
    RunFor(3, [&together](const Message&) { together.arrive_and_wait(); });
    EXPECT_EQ(3U, m_verdicts.size());
}

TEST_F(Consuming, TellsWhatTheAgentSaysAtEachAttach)
{
    std::vector<Welcome> welcomes;
    m_options.onWelcome = [&welcomes](const Welcome& welcome) { welcomes.push_back(welcome); };
    StartAgent(
        [](const v1::Hello&, FakeAgent::Stream& stream)
        {
            v1::AttachResponse response = FakeAgent::Welcome();
            v1::Welcome& welcome = *response.mutable_welcome();
            welcome.set_window(7);
            welcome.set_ordering_key("header:customer");
            welcome.mutable_broker()->set_state(v1::Broker::CONNECTED);
            welcome.mutable_configuration()->set_state(v1::Configuration::FAILED);
            welcome.mutable_configuration()->set_error("no such queue");
            welcome.mutable_configuration()->add_topics("orders.*");
            welcome.mutable_configuration()->add_queues("web.jobs");
            welcome.mutable_configuration()->set_incomplete(true);
            stream.Write(response);
            stream.Write(FakeAgent::Batch(1, 1));
            v1::AttachRequest request;
            stream.Read(&request);
            return grpc::Status::OK;
        });
    RunFor(2, [](const Message&) {});
    ASSERT_EQ(2U, welcomes.size()) << "one for each attach";
    const Welcome& welcome = welcomes.front();
    EXPECT_EQ("web", welcome.application);
    EXPECT_EQ("fake", welcome.agentVersion);
    EXPECT_EQ(7U, welcome.window);
    EXPECT_EQ("header:customer", welcome.orderingKey);
    EXPECT_EQ(BrokerState::connected, welcome.broker);
    EXPECT_EQ(Configuration::State::failed, welcome.configuration.state);
    EXPECT_EQ("no such queue", welcome.configuration.error);
    EXPECT_THAT(welcome.configuration.topics, ElementsAre("orders.*"));
    EXPECT_THAT(welcome.configuration.queues, ElementsAre("web.jobs"));
    EXPECT_TRUE(welcome.configuration.incomplete);
}

TEST_F(Consuming, TellsOfTheConfigurationAndTheBroker)
{
    std::vector<Configuration::State> states;
    std::vector<BrokerState> broker;
    m_options.onConfiguration = [&states](const Configuration& now) { states.push_back(now.state); };
    m_options.onBroker = [&broker](BrokerState now) { broker.push_back(now); };
    StartAgent(
        [](const v1::Hello&, FakeAgent::Stream& stream)
        {
            v1::AttachResponse response = FakeAgent::Welcome();
            response.mutable_welcome()->mutable_broker()->set_state(v1::Broker::CONNECTED);
            stream.Write(response);
            response.mutable_configuration()->set_state(v1::Configuration::APPLIED);
            stream.Write(response);
            response.mutable_broker()->set_state(v1::Broker::BLOCKED);
            stream.Write(response);
            stream.Write(FakeAgent::Batch(1, 1));
            ReadVerdicts(stream, 1);
            return grpc::Status::OK;
        });
    RunFor(1, [](const Message&) {});
    EXPECT_THAT(states, ElementsAre(Configuration::State::missing, Configuration::State::applied));
    EXPECT_THAT(broker, ElementsAre(BrokerState::connected, BrokerState::blocked));
}

TEST_F(Consuming, TellsOfTheWelcomeAndTheEndAndAttachesNoMoreThanAsked)
{
    std::vector<std::string> told;
    m_options.attachAgain = false;
    m_options.onWelcome = [&told](const Welcome& welcome)
    { told.push_back(welcome.application + " by " + welcome.agentVersion); };
    m_options.onDetached = [&told](const Detachment& detachment)
    { told.push_back((detachment.wasWelcomed ? "" : "not ") + detachment.why); };
    StartAgent(
        [](const v1::Hello&, FakeAgent::Stream& stream)
        {
            stream.Write(FakeAgent::Welcome());
            return grpc::Status(grpc::StatusCode::UNAVAILABLE, "going");
        });
    Client("web", m_options).Run([](const Message&) {});
    EXPECT_THAT(told, ElementsAre("web by fake", "going"));
}

TEST_F(Consuming, NoneIsNoVerdict)
{
    m_options.stopPatience = std::chrono::milliseconds(0);
    DeliverAndKeepVerdicts(2);
    RunFor(2, [](const Message& message) { return message.body == "1" ? Verdict::Done() : Verdict::None(); });
    ASSERT_EQ(1U, m_verdicts.size());
    EXPECT_EQ(1U, m_verdicts[0].delivery_id());
}

TEST_F(Consuming, RunsOnceAtATime)
{
    DeliverAndKeepVerdicts(1);
    Client client("web", m_options);
    client.Run(
        [&client](const Message&)
        {
            EXPECT_THROW(client.Run([](const Message&) {}), std::logic_error);
            client.Stop();
        });
}

} // namespace qel

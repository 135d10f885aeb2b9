#include "tools/FakeAgent.h"
#include "tools/ProgramRun.h"
#include "tools/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

namespace v1 = qel::apps::v1;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/** Reads a stream until the application ends its side and notes the verdicts. */
std::vector<v1::Verdict> ReadVerdicts(FakeAgent::Stream& stream)
{
    std::vector<v1::Verdict> verdicts;
    v1::AttachRequest request;
    while (stream.Read(&request))
    {
        verdicts.insert(verdicts.end(), request.verdicts().verdicts().begin(), request.verdicts().verdicts().end());
    }
    return verdicts;
}

/** The member `name` of every line of JSON, as JSON text; lines without it are left out. */
std::vector<std::string> Column(const std::string& lines, const std::string& name)
{
    std::vector<std::string> values;
    std::istringstream input(lines);
    for (std::string line; std::getline(input, line);)
    {
        const nlohmann::json object = nlohmann::json::parse(line);
        if (object.contains(name))
        {
            values.push_back(object.at(name).dump());
        }
    }
    return values;
}

/** An agent that welcomes, delivers one batch and notes what the application answers until it ends its side. */
class AttachCommandTest : public ::testing::Test
{
  protected:
    FakeAgent::Script Deliver(std::uint64_t last)
    {
        return [this, last](const v1::Hello& hello, FakeAgent::Stream& stream)
        {
            stream.Write(FakeAgent::Welcome());
            if (last > 0)
            {
                stream.Write(FakeAgent::Batch(1, last));
            }
            std::vector<v1::Verdict> verdicts = ReadVerdicts(stream);
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_hello = hello;
            m_verdicts = std::move(verdicts);
            return grpc::Status::OK;
        };
    }

    std::vector<std::string> Attach(const std::vector<std::string>& options) const
    {
        std::vector<std::string> arguments = {"attach", "web", "--json", "--socket", m_socket};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return arguments;
    }

    TemporaryFolder m_folder;
    const std::string m_socket = m_folder.Path("web.sock");
    std::mutex m_mutex;
    v1::Hello m_hello;
    std::vector<v1::Verdict> m_verdicts;
};

} // namespace

TEST_F(AttachCommandTest, EveryDeliveryIsPrintedAndAnsweredOnce)
{
    ProgramResult result;
    {
        FakeAgent agent(m_socket, Deliver(3));
        result = RunQelctl(Attach({"--count", "3", "--instance", "one", "--window", "9"}));
    }

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(
        Column(result.out, "event"), ElementsAre("\"welcome\"", "\"delivery\"", "\"delivery\"", "\"delivery\""));
    EXPECT_THAT(Column(result.out, "body"), ElementsAre("\"1\"", "\"2\"", "\"3\""));
    EXPECT_EQ(m_hello.instance(), "one");
    EXPECT_EQ(m_hello.window(), 9U);
    ASSERT_EQ(m_verdicts.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(m_verdicts[i].delivery_id(), i + 1);
        EXPECT_EQ(m_verdicts[i].kind(), v1::Verdict::DONE);
    }
}

TEST_F(AttachCommandTest, DeliveriesBeyondTheCountAreNeitherPrintedNorAnswered)
{
    ProgramResult result;
    {
        FakeAgent agent(m_socket, Deliver(5));
        result = RunQelctl(Attach({"--count", "2"}));
    }

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(Column(result.out, "body"), ElementsAre("\"1\"", "\"2\""));
    EXPECT_EQ(m_verdicts.size(), 2U);
}

TEST_F(AttachCommandTest, RetryCarriesItsDelay)
{
    {
        FakeAgent agent(m_socket, Deliver(1));
        EXPECT_EQ(RunQelctl(Attach({"--count", "1", "--verdict", "retry", "--retry-delay-ms", "250"})).status, 0);
    }

    ASSERT_EQ(m_verdicts.size(), 1U);
    EXPECT_EQ(m_verdicts[0].kind(), v1::Verdict::RETRY);
    EXPECT_EQ(m_verdicts[0].retry_delay_ms(), 250U);
}

TEST_F(AttachCommandTest, DeadCarriesItsReason)
{
    {
        FakeAgent agent(m_socket, Deliver(1));
        EXPECT_EQ(RunQelctl(Attach({"--count", "1", "--verdict", "dead", "--reason", "no thanks"})).status, 0);
    }

    ASSERT_EQ(m_verdicts.size(), 1U);
    EXPECT_EQ(m_verdicts[0].kind(), v1::Verdict::DEAD);
    EXPECT_EQ(m_verdicts[0].reason(), "no thanks");
}

TEST_F(AttachCommandTest, TheFirstRuleThatFitsAnswers)
{
    {
        FakeAgent agent(
            m_socket,
            [this](const v1::Hello&, FakeAgent::Stream& stream)
            {
                stream.Write(FakeAgent::Welcome());
                v1::AttachResponse batch = FakeAgent::Batch(1, 3);
                batch.mutable_deliveries()->mutable_deliveries(0)->set_routing_key("a.b.bad");
                batch.mutable_deliveries()->mutable_deliveries(1)->mutable_properties()->set_type("orders");
                stream.Write(batch);
                m_verdicts = ReadVerdicts(stream);
                return grpc::Status::OK;
            });
        const ProgramResult result = RunQelctl(Attach(
            {"--count", "3", "--rule", "key=#.bad:dead", "--rule", "type=order*:retry", "--rule", "type=*:done",
             "--reason", "bad key"}));
        EXPECT_EQ(result.status, 0) << result.err;
    }

    ASSERT_EQ(m_verdicts.size(), 3U);
    EXPECT_EQ(m_verdicts[0].kind(), v1::Verdict::DEAD);
    EXPECT_EQ(m_verdicts[0].reason(), "bad key");
    EXPECT_EQ(m_verdicts[1].kind(), v1::Verdict::RETRY);
    EXPECT_EQ(m_verdicts[2].kind(), v1::Verdict::DONE);
}

TEST_F(AttachCommandTest, AnswersAreReadByTheLineAndWhatHasNoneStaysInHand)
{
    ProgramResult result;
    {
        FakeAgent agent(m_socket, Deliver(4));
        result = RunQelctl(Attach({"--verdict", "ask"}), "ack\nperhaps\nr 250\ndead no thanks\n");
    }

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, HasSubstr("\"perhaps\" is no answer: a or done, r or retry"));
    EXPECT_EQ(Column(result.out, "body").size(), 4U);
    EXPECT_EQ(m_hello.window(), 1U);
    ASSERT_EQ(m_verdicts.size(), 3U);
    EXPECT_EQ(m_verdicts[0].kind(), v1::Verdict::DONE);
    EXPECT_EQ(m_verdicts[1].kind(), v1::Verdict::RETRY);
    EXPECT_EQ(m_verdicts[1].retry_delay_ms(), 250U);
    EXPECT_EQ(m_verdicts[2].kind(), v1::Verdict::DEAD);
    EXPECT_EQ(m_verdicts[2].reason(), "no thanks");
}

TEST_F(AttachCommandTest, ChangesOfStateArePrinted)
{
    ProgramResult result;
    {
        FakeAgent agent(
            m_socket,
            [](const v1::Hello&, FakeAgent::Stream& stream)
            {
                stream.Write(FakeAgent::Welcome());
                v1::AttachResponse response;
                response.mutable_broker()->set_state(v1::Broker::CONNECTED);
                stream.Write(response);
                response.mutable_configuration()->set_state(v1::Configuration::FAILED);
                stream.Write(response);
                stream.Write(FakeAgent::Batch(1, 1));
                ReadVerdicts(stream);
                return grpc::Status::OK;
            });
        result = RunQelctl(Attach({"--count", "1"}));
    }

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(
        Column(result.out, "event"), ElementsAre("\"welcome\"", "\"broker\"", "\"configuration\"", "\"delivery\""));
    EXPECT_THAT(Column(result.out, "state"), ElementsAre("\"CONNECTED\"", "\"FAILED\""));
}

TEST_F(AttachCommandTest, ATerminationSignalDetachesInOrder)
{
    ProgramResult result;
    {
        FakeAgent agent(m_socket, Deliver(2));
        ProgramRun run(Attach({}));
        while (Column(run.Out(), "body").size() < 2)
        {
            std::this_thread::yield();
        }
        run.Signal(SIGTERM);
        result = run.Finish();
    }

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(m_verdicts.size(), 2U);
}

TEST_F(AttachCommandTest, AStreamEndedByTheAgentIsAFailure)
{
    FakeAgent agent(
        m_socket,
        [](const v1::Hello&, FakeAgent::Stream& stream)
        {
            stream.Write(FakeAgent::Welcome());
            return grpc::Status::OK;
        });

    const ProgramResult result = RunQelctl(Attach({}));

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("qelctl: the agent has ended the stream"));
}

TEST_F(AttachCommandTest, ARefusalIsToldInTheAgentsWords)
{
    FakeAgent agent(
        m_socket, [](const v1::Hello&, FakeAgent::Stream&)
        { return grpc::Status(grpc::StatusCode::RESOURCE_EXHAUSTED, "too many instances"); });

    const ProgramResult result = RunQelctl(Attach({}));

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qelctl: the agent refuses to attach us: too many instances (gRPC status 8)\n");
}

TEST_F(AttachCommandTest, ASocketThatNobodyListensOnIsToldFromAnAbsentOne)
{
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_socket.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(listener);

    const ProgramResult result = RunQelctl(Attach({}));

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("qelctl: nobody answers on " + m_socket));
}

TEST_F(AttachCommandTest, WithReconnectALostStreamIsMadeAgain)
{
    std::atomic<int> streams{0};
    const FakeAgent::Script deliver = Deliver(1);
    ProgramResult result;
    {
        FakeAgent agent(
            m_socket, [&streams, &deliver](const v1::Hello& hello, FakeAgent::Stream& stream)
            { return ++streams == 1 ? grpc::Status(grpc::StatusCode::UNAVAILABLE, "going") : deliver(hello, stream); });
        result = RunQelctl(Attach({"--reconnect", "--count", "1"}));
    }

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(streams, 2);
    EXPECT_THAT(Column(result.out, "event"), ElementsAre("\"detached\"", "\"welcome\"", "\"delivery\""));
}

} // namespace VtxQel

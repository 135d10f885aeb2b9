#include "apps/TemporaryFolder.h"
#include "qel/Client.h"
#include "tools/FakeAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace qel
{

namespace
{

namespace v1 = apps::v1;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using VtxQel::FakeAgent;

/** An agent that gives one answer after the other to who asks for a configuration. */
class RequestingConfiguration : public ::testing::Test
{
  protected:
    RequestingConfiguration() { m_options.socket = m_folder.Path() + "/web.sock"; }

    void StartAgent()
    {
        m_agent.emplace(
            m_options.socket, FakeAgent::Script(), FakeAgent::PublishScript(),
            [this](v1::Configuration& inForce)
            {
                inForce.set_state(v1::Configuration::APPLIED);
                inForce.add_topics("orders.*");
                const std::lock_guard<std::mutex> lock(m_mutex);
                grpc::Status answer = m_answers.front();
                m_answers.pop_front();
                return answer;
            });
    }

    ConfigurationError::Kind KindOfFailure(std::chrono::milliseconds deadline = std::chrono::seconds(30))
    {
        try
        {
            Client("web", m_options).RequestConfiguration(deadline);
        }
        catch (const ConfigurationError& error)
        {
            m_text = error.what();
            return error.GetKind();
        }
        throw std::logic_error("the request is on its way");
    }

    VtxQel::TemporaryFolder m_folder;
    Options m_options;
    std::mutex m_mutex;
    std::deque<grpc::Status> m_answers;
    std::string m_text;
    std::optional<FakeAgent> m_agent;
};

} // namespace

TEST_F(RequestingConfiguration, ReturnsWhatIsInForce)
{
    m_answers = {grpc::Status::OK};
    StartAgent();
    const Configuration inForce = Client("web", m_options).RequestConfiguration();
    EXPECT_EQ(Configuration::State::applied, inForce.state);
    EXPECT_THAT(inForce.topics, ElementsAre("orders.*"));
}

TEST_F(RequestingConfiguration, AsksAgainUntilTheAgentHasAnAnswer)
{
    m_answers = {{grpc::StatusCode::UNAVAILABLE, "busy"}, grpc::Status::OK};
    StartAgent();
    Client("web", m_options).RequestConfiguration();
    EXPECT_TRUE(m_answers.empty());
}

TEST_F(RequestingConfiguration, ToldApartIsWhoHasToDoSomething)
{
    m_answers = {
        {grpc::StatusCode::NOT_FOUND, "the plane is away"},
        {grpc::StatusCode::FAILED_PRECONDITION, "mend [management]"},
        {grpc::StatusCode::UNIMPLEMENTED, "an old agent"},
        {grpc::StatusCode::RESOURCE_EXHAUSTED, "wait"}};
    StartAgent();
    EXPECT_EQ(ConfigurationError::Kind::noPlane, KindOfFailure());
    EXPECT_EQ("the plane is away", m_text);
    EXPECT_EQ(ConfigurationError::Kind::notSetUp, KindOfFailure());
    EXPECT_EQ("mend [management]", m_text);
    EXPECT_EQ(ConfigurationError::Kind::notSetUp, KindOfFailure());
    EXPECT_EQ(ConfigurationError::Kind::tooSoon, KindOfFailure());
    EXPECT_TRUE(m_answers.empty()) << "none of them is repeated";
}

TEST_F(RequestingConfiguration, GivesUpAtTheDeadline)
{
    EXPECT_EQ(ConfigurationError::Kind::unconfirmed, KindOfFailure(std::chrono::milliseconds(200)));
    EXPECT_THAT(m_text, HasSubstr("web.sock")) << "where the agent was looked for";
}

} // namespace qel

#include "apps/TemporaryFolder.h"
#include "qel/Client.h"
#include "tools/FakeAgent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <mutex>
#include <optional>
#include <vector>

namespace qel
{

namespace
{

namespace v1 = apps::v1;
using ::testing::HasSubstr;
using VtxQel::FakeAgent;

/** An agent that gives one answer after the other to what is published, the last one for good. */
class Publishing : public ::testing::Test
{
  protected:
    Publishing()
    {
        m_options.socket = m_folder.Path() + "/web.sock";
        StartAgent();
    }

    void StartAgent()
    {
        m_agent.emplace(
            m_options.socket, FakeAgent::Script(),
            [this](const v1::PublishRequest& request)
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_requests.push_back(request);
                grpc::Status answer = m_answers.front();
                if (m_answers.size() > 1)
                {
                    m_answers.pop_front();
                }
                return answer;
            });
    }

    static Publication Order()
    {
        Publication publication;
        publication.exchange = "qel";
        publication.routingKey = "orders.created";
        publication.body = "17";
        return publication;
    }

    PublishError::Kind KindOfFailure(std::chrono::milliseconds deadline = std::chrono::seconds(30))
    {
        try
        {
            Client("web", m_options).Publish(Order(), deadline);
        }
        catch (const PublishError& error)
        {
            m_text = error.what();
            return error.GetKind();
        }
        throw std::logic_error("it was published");
    }

    VtxQel::TemporaryFolder m_folder;
    Options m_options;
    std::mutex m_mutex;
    std::deque<grpc::Status> m_answers{grpc::Status::OK};
    std::vector<v1::PublishRequest> m_requests;
    std::string m_text;
    std::optional<FakeAgent> m_agent;
};

} // namespace

TEST_F(Publishing, GivesAMessageAnIdAndMakesItPersistent)
{
    Client client("web", m_options);
    client.Publish(Order());
    client.Publish(Order());
    ASSERT_EQ(2U, m_requests.size());
    EXPECT_EQ("qel", m_requests[0].exchange());
    EXPECT_EQ("orders.created", m_requests[0].routing_key());
    EXPECT_EQ("17", m_requests[0].body());
    EXPECT_TRUE(m_requests[0].no_route_is_error());
    EXPECT_EQ(2U, m_requests[0].properties().delivery_mode());
    EXPECT_EQ(32U, m_requests[0].properties().message_id().size());
    EXPECT_NE(m_requests[0].properties().message_id(), m_requests[1].properties().message_id());
}

TEST_F(Publishing, KeepsWhatTheCallerSays)
{
    Publication publication = Order();
    publication.properties.messageId = "mine";
    publication.properties.deliveryMode = 1;
    publication.noRouteIsError = false;
    Client("web", m_options).Publish(publication);
    EXPECT_EQ("mine", m_requests.at(0).properties().message_id());
    EXPECT_EQ(1U, m_requests.at(0).properties().delivery_mode());
    EXPECT_FALSE(m_requests.at(0).no_route_is_error());
}

TEST_F(Publishing, RepeatsUnderTheSameIdUntilTheBrokerHasIt)
{
    m_answers = {{grpc::StatusCode::UNAVAILABLE, "busy"}, {grpc::StatusCode::CANCELLED, "going"}, grpc::Status::OK};
    Client("web", m_options).Publish(Order());
    ASSERT_EQ(3U, m_requests.size());
    EXPECT_EQ(m_requests[0].properties().message_id(), m_requests[2].properties().message_id());
}

TEST_F(Publishing, ToldApartAreNoRouteAndRefusal)
{
    m_answers = {{grpc::StatusCode::NOT_FOUND, "no queue"}};
    EXPECT_EQ(PublishError::Kind::noRoute, KindOfFailure());
    m_answers = {{grpc::StatusCode::INVALID_ARGUMENT, "too long"}};
    EXPECT_EQ(PublishError::Kind::refused, KindOfFailure());
    EXPECT_EQ("too long", m_text);
    m_answers = {{grpc::StatusCode::RESOURCE_EXHAUSTED, "larger than max"}};
    EXPECT_EQ(PublishError::Kind::refused, KindOfFailure());
    EXPECT_EQ("the message is too large for the agent: larger than max", m_text);
    EXPECT_EQ(3U, m_requests.size());
}

TEST_F(Publishing, GivesUpAtTheDeadline)
{
    m_answers = {{grpc::StatusCode::UNAVAILABLE, "busy"}};
    EXPECT_EQ(PublishError::Kind::unconfirmed, KindOfFailure(std::chrono::milliseconds(200)));
    EXPECT_THAT(m_text, HasSubstr("busy")) << "though the last attempt may have had no time left for an answer";
    m_agent.reset();
    EXPECT_EQ(PublishError::Kind::unconfirmed, KindOfFailure(std::chrono::milliseconds(200)));
}

TEST_F(Publishing, WaitsForAnAgentThatIsAway)
{
    m_agent.reset();
    Client client("web", m_options);
    std::thread publisher([&client] { client.Publish(Order(), std::chrono::seconds(60)); });
    StartAgent();
    publisher.join();
    EXPECT_EQ(1U, m_requests.size());
}

} // namespace qel

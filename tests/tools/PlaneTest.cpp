#include "qelctl/Plane.h"

#include "common/MessageTypes.h"
#include "tools/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{
namespace
{

using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr const char* oneTopic = R"({"topicInfo": [{"topic": "a"}]})";

class PlaneTest : public ::testing::Test
{
  protected:
    /** Writes the file of web on host-1 and tells the plane. */
    void Change(const std::string& text) { m_plane.Take({"host-1", "web", m_files.Write("web.json", text), false}); }
    void Remove() { m_plane.Take({"host-1", "web", m_files.Path("web.json"), true}); }
    void Ask(const std::string& application, const std::string& replyTo = "qel.client.host-1")
    {
        RmqProperties request;
        request.type = APP_INIT_REQUEST_TYPE;
        request.appId = application;
        request.replyTo = replyTo;
        m_plane.Answer(request);
    }
    /** The lines since the last call. */
    std::string Said()
    {
        std::string text = m_out.str();
        m_out.str("");
        return text;
    }
    void Conclude(PublishResult result, const std::string& why = "")
    {
        const auto completion = m_sent.back().second;
        completion(result, why);
    }
    std::vector<std::string> Topics() const
    {
        brelix::vtx::messaging::appinit::AppInitConfigMsg message;
        EXPECT_TRUE(message.ParseFromString(m_sent.back().first.body));
        std::vector<std::string> topics;
        for (const auto& one : message.topic_info())
        {
            topics.push_back(one.topic());
        }
        return topics;
    }

    TemporaryFolder m_files;
    std::ostringstream m_out;
    std::vector<std::pair<OutgoingMessage, PublishCompletion>> m_sent;
    Plane m_plane{
        "DIR", "plane",
        [this](OutgoingMessage message, PublishCompletion completion)
        { m_sent.emplace_back(std::move(message), std::move(completion)); },
        m_out, false};
};

TEST_F(PlaneTest, AFileIsSentToItsAgent)
{
    Change(R"({"topicInfo": [{"topic": "a"}], "queueName": ["q"]})");
    ASSERT_THAT(m_sent, SizeIs(1));
    const OutgoingMessage& message = m_sent.back().first;
    EXPECT_EQ(message.exchange, "");
    EXPECT_EQ(message.routingKey, "qel.client.host-1");
    EXPECT_EQ(message.properties.type, APP_INIT_CONFIG_TYPE);
    EXPECT_EQ(message.properties.appId, "web");
    EXPECT_EQ(message.properties.userId, "plane");
    EXPECT_TRUE(message.mandatory);
    EXPECT_EQ(Topics(), std::vector<std::string>{"a"});
    EXPECT_EQ(Said(), "");
    Conclude(PublishResult::confirmed);
    EXPECT_EQ(Said(), "sent web of host-1 (1 topics, 1 queues): its file says so\n");
}

TEST_F(PlaneTest, ARequestIsAnswered)
{
    Change(oneTopic);
    Ask("web");
    ASSERT_THAT(m_sent, SizeIs(2));
    EXPECT_EQ(m_sent.front().first.body, m_sent.back().first.body);
    Conclude(PublishResult::confirmed);
    EXPECT_EQ(Said(), "sent web of host-1 (1 topics, 0 queues): asked for\n");
}

TEST_F(PlaneTest, ThatThereIsNoFileIsSaidOnceUntilThereIsOne)
{
    Ask("web");
    EXPECT_EQ(Said(), "web of host-1 is asked for, but there is no usable DIR/host-1/web.json: write it\n");
    Ask("web");
    EXPECT_EQ(Said(), "");
    Ask("mail");
    EXPECT_THAT(Said(), HasSubstr("mail of host-1"));
    Change(oneTopic);
    Remove();
    Said();
    Ask("web");
    EXPECT_THAT(Said(), HasSubstr("web of host-1"));
    EXPECT_THAT(m_sent, SizeIs(1));
}

TEST_F(PlaneTest, AWrongFileLeavesTheConfigurationBefore)
{
    Change("{\n\"topicInfo\": 1}");
    EXPECT_EQ(
        Said(), m_files.Path("web.json") + ":2:14: topicInfo: must be a list of objects: mend it; until then "
                                           "nothing is sent\n");
    Change(oneTopic);
    Change("{");
    EXPECT_THAT(m_sent, SizeIs(1));
    const std::string said = Said();
    EXPECT_THAT(said, ::testing::StartsWith(m_files.Path("web.json") + ":1:"));
    EXPECT_THAT(said, HasSubstr(": mend it; until then the configuration before counts\n"));
    Ask("web");
    EXPECT_EQ(Topics(), std::vector<std::string>{"a"});
}

TEST_F(PlaneTest, ANameThatNoApplicationMayHaveIsRejected)
{
    m_plane.Take({"host-1", "web site", m_files.Write("web site.json", oneTopic), false});
    EXPECT_THAT(Said(), HasSubstr("\"web site\" is not an application's name"));
    EXPECT_THAT(m_sent, SizeIs(0));
}

TEST_F(PlaneTest, OfARemovedFileNothingIsSent)
{
    Change(oneTopic);
    Conclude(PublishResult::confirmed);
    Said();
    Remove();
    EXPECT_EQ(Said(), "removed " + m_files.Path("web.json") + ": nothing is sent, web of host-1 keeps what it has\n");
    Ask("web");
    EXPECT_THAT(m_sent, SizeIs(1));
}

TEST_F(PlaneTest, WhatTheBrokerDidNotTakeInTimeIsSentAgainAsItIsThen)
{
    Change(oneTopic);
    Conclude(PublishResult::notSent, "the broker is away");
    EXPECT_EQ(Said(), "not sent web of host-1: the broker is away: it is tried again\n");
    Change(R"({"topicInfo": [{"topic": "b"}]})");
    ASSERT_TRUE(m_plane.HasUnsent());
    m_plane.SendAgain();
    EXPECT_FALSE(m_plane.HasUnsent());
    ASSERT_THAT(m_sent, SizeIs(3));
    EXPECT_EQ(Topics(), std::vector<std::string>{"b"});
    Conclude(PublishResult::timedOut, "the broker is away");
    EXPECT_TRUE(m_plane.HasUnsent());
    EXPECT_EQ(Said(), "") << "it has been said";
    Remove();
    EXPECT_FALSE(m_plane.HasUnsent());
}

TEST_F(PlaneTest, AnAgentThatNeverWasConnectedIsNotTriedAgain)
{
    Change(oneTopic);
    Conclude(PublishResult::noRoute, "312 NO_ROUTE");
    EXPECT_EQ(
        Said(), "not sent web of host-1: there is no queue qel.client.host-1: the agent has never been connected; it "
                "gets its configuration when it asks\n");
    Conclude(PublishResult::refused, "no permission");
    EXPECT_EQ(Said(), "not sent web of host-1: no permission\n");
    EXPECT_FALSE(m_plane.HasUnsent());
}

TEST_F(PlaneTest, WhatIsNoRequestIsIgnored)
{
    Change(oneTopic);
    m_plane.Answer(RmqProperties{});
    EXPECT_THAT(Said(), HasSubstr("is not answered"));
    Ask("web", "another.queue\n");
    EXPECT_THAT(Said(), HasSubstr("with reply-to \"another.queue\\x0a\" is not answered"));
    EXPECT_THAT(m_sent, SizeIs(1));
}

TEST_F(PlaneTest, ProgramsGetTheSame)
{
    std::ostringstream out;
    Plane plane(
        "DIR", "",
        [](OutgoingMessage, const PublishCompletion& completion) { completion(PublishResult::confirmed, ""); }, out,
        true);
    const std::string file = m_files.Write("web.json", oneTopic);
    plane.Take({"host-1", "web", file, false});
    plane.Take({"host-1", "web", file, true});
    plane.Say("trouble", "\xff");
    std::istringstream lines(out.str());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(nlohmann::json::parse(line), nlohmann::json::parse(R"({"event": "sent", "agent": "host-1",
        "application": "web", "cause": "file", "topics": 1, "queues": 0})"));
    std::getline(lines, line);
    EXPECT_EQ(
        nlohmann::json::parse(line),
        nlohmann::json({{"event", "removed"}, {"agent", "host-1"}, {"application", "web"}, {"file", file}}));
    std::getline(lines, line);
    EXPECT_EQ(nlohmann::json::parse(line).at("event"), "trouble");
}

} // namespace
} // namespace VtxQel

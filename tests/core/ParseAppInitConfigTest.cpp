#include "common/QelException.h"
#include "core/HandlerTest.h"

#include <cstddef>
#include <stdexcept>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

class ParseAppInitConfig : public HandlerTest
{
  protected:
    static std::string Body()
    {
        AppInitConfigMsg sent;
        sent.add_topic_info()->set_topic("plain");
        auto* info = sent.add_topic_info();
        info->set_topic("urgent");
        info->set_priority(7);
        sent.add_queue_name("queue");
        return sent.SerializeAsString();
    }

    AppInitConfigMsg config;
};

TEST_F(ParseAppInitConfig, AValidBodyFillsTheConfigurationAndReturnsZero)
{
    const LogCapture log(7);
    EXPECT_EQ(handler.ParseAppInitConfig(Message(configurationType, Body()), config), 0);
    ASSERT_EQ(config.topic_info_size(), 2);
    EXPECT_EQ(config.topic_info(0).topic(), "plain");
    EXPECT_EQ(config.topic_info(0).priority(), 0U);
    EXPECT_EQ(config.topic_info(1).priority(), 7U);
    ASSERT_EQ(config.queue_name_size(), 1);
    EXPECT_EQ(config.queue_name(0), "queue");
    EXPECT_EQ(log.Lines(), Strings());
}

// The bytes as the management plane sends them, field numbers included.
TEST_F(ParseAppInitConfig, TheWireFormatIsFixed)
{
    const std::string wire = "\x0a\x05\x0a\x01t\x10\x03\x12\x01q";
    EXPECT_EQ(handler.ParseAppInitConfig(Message(configurationType, wire), config), 0);
    ASSERT_EQ(config.topic_info_size(), 1);
    EXPECT_EQ(config.topic_info(0).topic(), "t");
    EXPECT_EQ(config.topic_info(0).priority(), 3U);
    EXPECT_EQ(config.queue_name(0), "q");
}

TEST_F(ParseAppInitConfig, AnEmptyBodyIsAValidConfigurationOfNothing)
{
    EXPECT_EQ(handler.ParseAppInitConfig(Message(configurationType, ""), config), 0);
    EXPECT_EQ(config.topic_info_size(), 0);
    EXPECT_EQ(config.queue_name_size(), 0);
    Register(config);
    EXPECT_EQ(journal.NotesOf({"broker.", "registry.", "entry."}), Strings());
}

TEST_F(ParseAppInitConfig, ABadBodyReturnsItsErrorCodeAndLogsOnce)
{
    LogCapture log(2);
    for (const std::string& body : {std::string("\xff\xff garbage"), Body().substr(0, Body().size() - 1)})
    {
        log.Clear();
        EXPECT_EQ(handler.ParseAppInitConfig(Message(configurationType, body), config), -1021);
        EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL1021 Unable to parse AppInitConfig from body"}));
    }
}

TEST_F(ParseAppInitConfig, ATopicEntryWithoutATopicIsABadBody)
{
    const LogCapture log(2);
    EXPECT_EQ(handler.ParseAppInitConfig(Message(configurationType, std::string("\x0a\x02\x10\x03")), config), -1021);
}

TEST_F(ParseAppInitConfig, ABadBodyIsSilentBelowLevelTwo)
{
    const LogCapture log(1);
    EXPECT_EQ(handler.ParseAppInitConfig(Message(configurationType, "garbage"), config), -1021);
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(ParseAppInitConfig, TheLengthIsAskedForBeforeTheBody)
{
    handler.ParseAppInitConfig(Message(configurationType, Body()), config);
    EXPECT_EQ(journal.NotesOf({"message."}), Strings({"message.GetBodyLength()", "message.GetBody()"}));
}

TEST_F(ParseAppInitConfig, TheLengthIsCutToItsLowThirtyTwoBits)
{
    const auto message = Message(configurationType, Body());
    message->length = (std::size_t{1} << 32U) + message->bodyBytes.size();
    EXPECT_EQ(handler.ParseAppInitConfig(message, config), 0);
    EXPECT_EQ(config.topic_info_size(), 2);
}

TEST_F(ParseAppInitConfig, TheBodyIsReleasedBeforeTheLine)
{
    const LogCapture log(2);
    const auto message = Message(configurationType, "garbage");
    bool released = false;
    vtx::SetLogSink([&](const vtx::LogLine&) { released = message->lastBody.expired(); });
    handler.ParseAppInitConfig(message, config);
    EXPECT_TRUE(released);
}

TEST_F(ParseAppInitConfig, WhatTheMessageThrowsPassesThrough)
{
    const auto message = Message(configurationType, Body());
    message->answers.Throw("message.GetBody()", std::runtime_error("no body"));
    EXPECT_EQ(Thrown<std::runtime_error>([&] { handler.ParseAppInitConfig(message, config); }), "no body");
}

} // namespace
} // namespace VtxQel

#include "agent/LogOutput.h"

#include "appinit/AppInitConfigMsg.pb.h"
#include "logging/Log.h"
#include "logging/LogScope.h"
#include "logging/RepeatedLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace VtxQel
{

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/** Everything that is written, as it reaches standard error. */
class LogOutput : public testing::Test
{
  protected:
    LogOutput()
    {
        vtx::Logger::logLevel = vtx::LevelDetail;
        ::unsetenv("JOURNAL_STREAM");
    }
    ~LogOutput() override
    {
        ::unsetenv("JOURNAL_STREAM");
        vtx::SetLogSink({});
        vtx::Logger::logLevel = vtx::LevelWarning;
    }

    static std::string Written(const std::string& format, const std::function<void()>& log)
    {
        testing::internal::CaptureStderr();
        StartLogOutput(format);
        log();
        return testing::internal::GetCapturedStderr();
    }

    static std::string Written(const std::string& format, const std::string& text)
    {
        return Written(format, [&text] { vtx::Logger(vtx::LevelWarning).subcomp("qel").put("%s", text.c_str()); });
    }
};

TEST_F(LogOutput, ALineHasTimeLevelSubcomponentTagAndText)
{
    const std::string plain = Written("text", [] { QEL_LOG(vtx::LevelWarning, "hello %d", 5); });
    EXPECT_THAT(plain, MatchesRegex("[0-9]+-[0-9]+-[0-9]+T[0-9:.]+[+-][0-9:]+ warning qel: hello 5\n"));
    const std::string tagged = Written("text", [] { QEL_LOG_ERROR("errorCode:QEL15", "bad"); });
    EXPECT_THAT(tagged, EndsWith(" error qel errorCode:QEL15: bad\n"));
}

TEST_F(LogOutput, TheJournalGetsThePriorityInsteadOfTheTime)
{
    const auto everything = []
    {
        QEL_LOG(vtx::LevelFatal, "a");
        QEL_LOG_ERROR("errorCode:QEL15", "b");
        QEL_LOG(vtx::LevelStatus, "c");
        QEL_LOG(vtx::LevelWarning, "d");
        QEL_LOG(vtx::LevelNotice, "e");
        QEL_LOG(vtx::LevelDetail, "f");
    };
    EXPECT_EQ(
        Written("journal", everything), "<2>fatal qel: a\n<3>error qel errorCode:QEL15: b\n<5>status qel: c\n"
                                        "<4>warning qel: d\n<6>notice qel: e\n<7>detail qel: f\n");
}

TEST_F(LogOutput, StandardErrorIsTheJournalWhenItIsTheStreamThatTheServiceManagerNames)
{
    const auto written = [](const std::string& format, const std::string& suffix)
    {
        testing::internal::CaptureStderr();
        struct stat stream = {};
        EXPECT_EQ(::fstat(STDERR_FILENO, &stream), 0);
        const std::string name = std::to_string(stream.st_dev) + ":" + std::to_string(stream.st_ino) + suffix;
        ::setenv("JOURNAL_STREAM", name.c_str(), 1);
        StartLogOutput(format);
        QEL_LOG(vtx::LevelWarning, "hello");
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(written("text", ""), "<4>warning qel: hello\n");
    EXPECT_THAT(written("json", ""), MatchesRegex("<4>\\{\"time\":\"[^ ]*\",\"level\":\"warning\".*\n"));
    EXPECT_THAT(written("text", "0"), MatchesRegex("[0-9]+-.* warning qel: hello\n"));
}

TEST_F(LogOutput, BesideTheTextStandsTheMessageThatALineIsAbout)
{
    const auto about = [](const LogFields& fields)
    {
        return [fields]
        {
            const LogScope scope([&fields] { return fields; });
            QEL_LOG(vtx::LevelWarning, "hello");
        };
    };
    EXPECT_EQ(
        Written("journal", about({"order-17", "web", 4})),
        "<4>warning qel [application=web message-id=order-17 delivery-tag=4]: hello\n");
    EXPECT_EQ(Written("journal", about({"", "", 5})), "<4>warning qel [delivery-tag=5]: hello\n");
    EXPECT_EQ(
        Written("journal", about({"a b\" delivery-tag=9]: \n", "web", 4})),
        "<4>warning qel [application=web message-id=\"a b\\\" delivery-tag=9]: \\\\x0a\" delivery-tag=4]: hello\n");
    EXPECT_EQ(
        Written("journal", about({std::string("a\0b", 3), "web", 4})),
        "<4>warning qel [application=web message-id=\"a\\\\x00b\" delivery-tag=4]: hello\n");
    const auto json = nlohmann::json::parse(Written("json", about({"order\xFF", "web", 4})));
    EXPECT_EQ(json["messageId"], "order\\xff");
    EXPECT_EQ(json["application"], "web");
    EXPECT_EQ(json["deliveryTag"], 4);
    EXPECT_EQ(json["message"], "hello");
    EXPECT_FALSE(nlohmann::json::parse(Written("json", about({"", "", 5}))).contains("messageId"));
}

TEST_F(LogOutput, OfManyLinesAlikeTheFirstAreWritten)
{
    const std::string written = Written(
        "journal",
        []
        {
            for (int index = 0; index < 100; ++index)
            {
                QEL_LOG(vtx::LevelWarning, "again");
            }
        });
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), RepeatedLines::MOST_ALIKE);
}

TEST_F(LogOutput, TheNewlineThatEndsATextIsNotShown)
{
    EXPECT_THAT(Written("text", "received\n"), EndsWith(": received\n"));
    EXPECT_THAT(Written("json", "received\n"), HasSubstr("\"message\":\"received\""));
}

TEST_F(LogOutput, WhatOutsidersWroteStaysInItsLine)
{
    const std::string hostile = "x\r\n2026-01-01T00:00:00.000+00:00 error qel: forged\x1B[2J\xC2\x9B\xFF\xE2\x80\xA8";
    const std::string shown =
        "x\\x0d\\x0a2026-01-01T00:00:00.000+00:00 error qel: forged\\x1b[2J\\xc2\\x9b\\xff\\xe2\\x80\\xa8";
    EXPECT_THAT(Written("text", hostile), EndsWith(" warning qel: " + shown + "\n"));
    const std::string json = Written("json", hostile);
    EXPECT_EQ(nlohmann::json::parse(json)["message"], shown) << json;
    EXPECT_EQ(json.find('\n'), json.size() - 1);
}

TEST_F(LogOutput, ALongLineIsCutAndSaysSo)
{
    const std::string end = "... (1000000 bytes)";
    const std::string text = Written("text", std::string(1000000, '\r'));
    EXPECT_THAT(text, EndsWith("\\x0d" + end + "\n"));
    EXPECT_LT(text.size(), 20000U);
    const std::string message = nlohmann::json::parse(Written("json", std::string(1000000, 'x')))["message"];
    EXPECT_EQ(message, std::string(4096, 'x') + end);
    EXPECT_THAT(Written("text", std::string(4096, 'x')), Not(HasSubstr("bytes)")));
}

TEST_F(LogOutput, WhatTheProtobufLibrarySaysIsALineOfOurs)
{
    brelix::vtx::messaging::appinit::AppInitConfigMsg config;
    const std::string withoutTopic("\x0A\x00", 2);
    const std::string written = Written("text", [&] { EXPECT_FALSE(config.ParseFromString(withoutTopic)); });
    EXPECT_THAT(written, HasSubstr(" detail qel: protobuf: "));
    EXPECT_EQ(written.find('\n'), written.size() - 1);
}

} // namespace VtxQel

#include "agent/LogOutput.h"

#include "appinit/AppInitConfigMsg.pb.h"
#include "logging/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <string>

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
    LogOutput() { vtx::Logger::logLevel = vtx::LevelDetail; }
    ~LogOutput() override
    {
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

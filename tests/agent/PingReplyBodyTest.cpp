#include "agent/PingReplyBody.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <utility>

namespace VtxQel
{
namespace
{

using nlohmann::json;

std::pair<std::string, ConfigurationFigures> Application(
    const std::string& name, const std::string& state, const std::string& error = "")
{
    ConfigurationFigures figures;
    figures.state = state;
    figures.hash = "0123456789abcdef";
    figures.error = error;
    return {name, figures};
}

TEST(PingReplyBody, SaysWhatIsInForce)
{
    const json body = json::parse(PingReplyBody({"host-1", "1.2", Seconds(1.5), {}, {Application("web", "applied")}}));
    EXPECT_EQ(body["agent"], "host-1");
    EXPECT_EQ(body["version"], "1.2");
    EXPECT_EQ(body["uptimeSeconds"], 1.5);
    EXPECT_EQ(body["ready"], true);
    EXPECT_EQ(body["omitted"], 0);
    EXPECT_EQ(body["applications"], json({{{"name", "web"}, {"state", "applied"}, {"hash", "0123456789abcdef"}}}));
}

TEST(PingReplyBody, SaysWhyTheAgentIsNotReadyAndWhatFailed)
{
    auto refused = Application("web", "applied");
    refused.second.lastFailure = ConfigurationFailure{"ff", "no configuration", WallTime()};
    const json body = json::parse(
        PingReplyBody({"h", "1", Seconds(1), {"no probe"}, {refused, Application("mail", "failed", "no")}}));
    EXPECT_EQ(body["ready"], false);
    EXPECT_EQ(body["reasons"], json({"no probe"}));
    EXPECT_EQ(body["applications"][0]["name"], "mail");
    EXPECT_EQ(body["applications"][0]["error"], "no");
    EXPECT_EQ(body["applications"][1]["lastFailure"]["at"], "1970-01-01T00:00:00.000Z");
}

TEST(PingReplyBody, WhatIsWrongComesFirst)
{
    const json body = json::parse(PingReplyBody(
        {"h",
         "1",
         Seconds(1),
         {},
         {Application("a", "applied"), Application("b", "missing"), Application("c", "applying"),
          Application("d", "failed"), Application("e", "applied")}}));
    std::string order;
    for (const json& application : body["applications"])
    {
        order += application["name"].get<std::string>();
    }
    EXPECT_EQ(order, "dcbae");
}

TEST(PingReplyBody, IsBoundedAndSaysHowManyAreLeftOut)
{
    PingReport report{"h", "1", Seconds(1), {}, {}};
    for (int number = 0; number < 5000; ++number)
    {
        report.configurations.push_back(
            Application("application-" + std::to_string(number), "failed", std::string(500, '"')));
    }
    const std::string text = PingReplyBody(report);
    EXPECT_LE(text.size(), LARGEST_PING_REPLY);
    EXPECT_GT(text.size(), LARGEST_PING_REPLY - 2000);
    const json body = json::parse(text);
    EXPECT_EQ(body["applications"].size() + body["omitted"].get<std::size_t>(), 5000U);
    EXPECT_GT(body["applications"].size(), 50U);
}

TEST(PingReplyBody, IsJsonWhateverBytesErrorsHold)
{
    const json body = json::parse(PingReplyBody({"h", "1", Seconds(1), {}, {Application("a", "failed", "\xff\n")}}));
    EXPECT_EQ(body["applications"][0]["error"], "\xef\xbf\xbd\n");
}

} // namespace
} // namespace VtxQel

#include "qelctl/PingReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace VtxQel
{

namespace
{

using ::testing::HasSubstr;
using ::testing::Not;

TEST(PingReport, SaysVersionUptimeReadinessAndEachConfiguration)
{
    const PingReport report(
        R"({"version": "1.2", "uptimeSeconds": 7500.5, "ready": false, "reasons": ["no probe"], "omitted": 3,
            "applications": [{"name": "mail", "state": "failed", "hash": "ab", "error": "queue refused"},
                             {"name": "web", "state": "applied", "hash": "cd",
                              "lastFailure": {"hash": "ef", "error": "no configuration", "at": "2026-11-21"}}]})");
    EXPECT_EQ(report.Headline(), ": version 1.2, up 2 h 5 min, not ready");
    EXPECT_EQ(
        report.Details(), "  not ready: no probe\n"
                          "  mail  failed    ab  queue refused\n"
                          "  web   applied   cd  last failure 2026-11-21: no configuration\n"
                          "  and 3 more applications\n");
}

TEST(PingReport, OfAnEmptyBodyNothingIsSaid)
{
    const PingReport report("");
    EXPECT_TRUE(report.Json().is_null());
    EXPECT_EQ(report.Headline(), "");
    EXPECT_EQ(report.Details(), "");
}

TEST(PingReport, WhatIsNoReportDoesNoHarm)
{
    for (const char* body :
         {"[1]", "7", "{}", R"({"version": 7, "uptimeSeconds": "x", "ready": 1, "applications": {"a": 1}})",
          R"({"applications": [1, null, {"name": 3, "lastFailure": 4}], "reasons": [{}], "omitted": -1})"})
    {
        const PingReport report(body);
        EXPECT_EQ(report.Headline(), "") << body;
        EXPECT_THAT(report.Details(), Not(HasSubstr("failure"))) << body;
    }
}

TEST(PingReport, NothingThatATerminalObeysIsPrinted)
{
    const PingReport report(
        "{\"version\": \"\\u001b[2J\", \"applications\": [{\"name\": \"a\\nb\", \"error\": \"\\u0007\"}]}");
    EXPECT_EQ((report.Headline() + report.Details()).find_first_of("\x1b\x07"), std::string::npos);
    EXPECT_THAT(report.Details(), HasSubstr("a\\x0ab"));
}

} // namespace

} // namespace VtxQel

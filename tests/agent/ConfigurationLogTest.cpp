#include "agent/ConfigurationLog.h"

#include "agent/ConfigurationHash.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{
namespace
{

RouteRecord Topic(const std::string& name, const std::string& queue = "normal")
{
    return {"web", RouteKind::topic, name, queue, RouteState::inForce};
}

RouteRecord Queue(const std::string& name)
{
    return {"web", RouteKind::queue, name, "", RouteState::inForce};
}

TEST(ConfigurationHash, IsThatOfSha256sum)
{
    const std::string body = "abc";
    const RmqBody record{body.size(), reinterpret_cast<const std::uint8_t*>(body.data())};
    EXPECT_EQ(ConfigurationHash(record), "ba7816bf8f01cfea");
    EXPECT_EQ(ConfigurationHash({0, nullptr}), "e3b0c44298fc1c14");
}

TEST(ConfigurationHash, RoutesAreASet)
{
    const std::string hash = RoutesHash({Topic("a"), Topic("b"), Queue("q")});
    EXPECT_EQ(RoutesHash({Queue("q"), Topic("b"), Topic("a"), Topic("a")}), hash);
    EXPECT_NE(RoutesHash({Topic("a"), Topic("b")}), hash);
    EXPECT_NE(RoutesHash({Topic("a"), Topic("b", "urgent"), Queue("q")}), hash);
    EXPECT_NE(RoutesHash({Topic("a"), Topic("b"), Topic("q", "")}), hash);
    EXPECT_NE(RoutesHash({Topic("a 1"), Topic("b")}), RoutesHash({Topic("a"), Topic("1 b")}));
}

class ConfigurationLogTest : public testing::Test
{
  protected:
    ConfigurationLogTest() { Restart(); }
    ~ConfigurationLogTest() override { std::filesystem::remove_all(folder); }

    void Restart()
    {
        log.reset();
        log.emplace(File());
    }
    std::string File() const { return (folder / "configurations.json").string(); }
    void Apply(const std::string& hash, const std::vector<RouteRecord>& routes)
    {
        log->Applied(log->Begin("web", hash, true), routes);
    }

    static std::filesystem::path MakeFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-log-XXXXXX").string();
        return ::mkdtemp(pattern.data());
    }

    const std::filesystem::path folder = MakeFolder();
    std::optional<ConfigurationLog> log;
};

TEST_F(ConfigurationLogTest, AnApplicationThatHadNoneHasNoHash)
{
    EXPECT_EQ(log->Of("web", "missing").hash, "");
    EXPECT_EQ(log->Of("web", "applied").at, std::nullopt);
}

TEST_F(ConfigurationLogTest, TheHashIsThatOfWhatTheStateIsAbout)
{
    Apply("one", {Topic("a")});
    EXPECT_EQ(log->Of("web", "applied").hash, "one");
    EXPECT_TRUE(log->Of("web", "applied").duration.has_value());

    const ConfigurationRun run = log->Begin("web", "two", true);
    EXPECT_EQ(log->Of("web", "applying").hash, "two");
    log->Failed(run, "refused", true, true);
    EXPECT_EQ(log->Of("web", "failed").hash, "two");
    EXPECT_EQ(log->Of("web", "applied").hash, "") << "what was in force before is gone";
}

TEST_F(ConfigurationLogTest, AFailureThatChangedNothingLeavesWhatIsInForce)
{
    Apply("one", {Topic("a")});
    log->Failed(log->Begin("web", "two", true), "no configuration", true, false);
    EXPECT_EQ(log->Of("web", "applied").hash, "one");
    ASSERT_TRUE(log->Of("web", "applied").lastFailure.has_value());
    EXPECT_EQ(log->Of("web", "applied").lastFailure->hash, "two");
    Apply("three", {Topic("a")});
    EXPECT_FALSE(log->Of("web", "applied").lastFailure.has_value());
}

TEST_F(ConfigurationLogTest, TheNextProcessKnowsTheHashWhenTheRoutesAreTheSame)
{
    Apply("one", {Topic("a"), Queue("q")});
    Restart();
    EXPECT_EQ(log->Of("web", "applied").hash, "");
    log->Restored("web", {Queue("q"), Topic("a")});
    EXPECT_EQ(log->Of("web", "applied").hash, "one");
    EXPECT_TRUE(log->Of("web", "applied").at.has_value());
}

TEST_F(ConfigurationLogTest, TheNextProcessDoesNotBelieveAHashOfOtherRoutes)
{
    Apply("one", {Topic("a")});
    Restart();
    log->Restored("web", {Topic("b")});
    EXPECT_EQ(log->Of("web", "applied").hash, "");
}

TEST_F(ConfigurationLogTest, WhatFailedIsNotBelievedAfterARestartEither)
{
    Apply("one", {Topic("a")});
    log->Failed(log->Begin("web", "two", true), "refused", true, true);
    Restart();
    log->Restored("web", {Topic("a")});
    EXPECT_EQ(log->Of("web", "applied").hash, "");
}

TEST_F(ConfigurationLogTest, AForgottenApplicationLeavesNothing)
{
    Apply("one", {Topic("a")});
    log->Forget("web");
    Restart();
    log->Restored("web", {Topic("a")});
    EXPECT_EQ(log->Of("web", "applied").hash, "");
}

TEST_F(ConfigurationLogTest, ADamagedFileIsNoFile)
{
    for (const char* content :
         {"", "{", "[]", "7", R"({"web": 7})", R"({"web": {"hash": 1, "routes": "x", "at": "y"}})"})
    {
        std::ofstream(File(), std::ios::trunc) << content;
        Restart();
        log->Restored("web", {Topic("a")});
        EXPECT_EQ(log->Of("web", "applied").hash, "") << content;
    }
}

TEST_F(ConfigurationLogTest, AFolderThatCannotBeWrittenCostsOnlyTheMemory)
{
    std::filesystem::remove_all(folder);
    Apply("one", {Topic("a")});
    EXPECT_EQ(log->Of("web", "applied").hash, "one");
}

TEST_F(ConfigurationLogTest, RemembersTheLastOnesNewestFirstAndCountsAll)
{
    for (int number = 0; number < 25; ++number)
    {
        Apply(std::to_string(number), {Topic("a"), Topic("b"), Queue("q")});
    }
    log->Failed(log->Begin("nobody", "x", false), std::string(1000, 'e'), false, false);
    const ConfigurationTotals totals = log->Totals();
    EXPECT_EQ(totals.applied, 25U);
    EXPECT_EQ(totals.failed, 1U);
    EXPECT_EQ(totals.durations.Count(), 26U);
    ASSERT_EQ(totals.recent.size(), 20U);
    EXPECT_EQ(totals.recent[0].application, "nobody");
    EXPECT_EQ(totals.recent[0].error.size(), 500U);
    EXPECT_EQ(totals.recent[1].hash, "24");
    EXPECT_EQ(totals.recent[1].topics, 2U);
    EXPECT_EQ(totals.recent[1].queues, 1U);
}

TEST_F(ConfigurationLogTest, NamesThatOthersMakeUpAreNotKept)
{
    log->Failed(log->Begin("made-up", "x", false), "there is no such application", false, false);
    EXPECT_FALSE(log->Of("made-up", "missing").lastFailure.has_value());
}

} // namespace
} // namespace VtxQel

#include "common/MinuteLog.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{
namespace
{

using Lines = std::vector<std::pair<std::string, std::uint64_t>>;

class MinuteLogTest : public testing::Test
{
  protected:
    /** Lets the minute of the last line end. */
    void PassMinute()
    {
        ASSERT_EQ(tasks.size(), 1U);
        std::exchange(tasks, {}).front()();
    }

    std::vector<std::function<void()>> tasks;
    Lines lines;
    MinuteLog log{
        [this](std::chrono::seconds delay, std::function<void()> task)
        {
            EXPECT_EQ(delay, std::chrono::seconds(60));
            tasks.push_back(std::move(task));
        },
        [this](const std::string& last, std::uint64_t count) { lines.emplace_back(last, count); }};
};

TEST_F(MinuteLogTest, TheFirstEventIsWrittenAtOnce)
{
    log.Note("one");
    EXPECT_EQ(lines, (Lines{{"one", 1}}));
}

TEST_F(MinuteLogTest, ThoseOfTheNextMinuteAreWrittenTogetherAtItsEnd)
{
    for (const char* text : {"one", "two", "three", "four"})
    {
        log.Note(text);
    }
    EXPECT_EQ(lines.size(), 1U);
    PassMinute();
    EXPECT_EQ(lines, (Lines{{"one", 1}, {"four", 3}}));
    log.Note("five");
    EXPECT_EQ(lines.size(), 2U);
    PassMinute();
    EXPECT_EQ(lines.back(), (std::pair<std::string, std::uint64_t>("five", 1)));
}

TEST_F(MinuteLogTest, AfterAQuietMinuteTheNextEventIsWrittenAtOnce)
{
    log.Note("one");
    PassMinute();
    EXPECT_TRUE(tasks.empty());
    EXPECT_EQ(lines.size(), 1U);
    log.Note("two");
    EXPECT_EQ(lines, (Lines{{"one", 1}, {"two", 1}}));
}

} // namespace
} // namespace VtxQel

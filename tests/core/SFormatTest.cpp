#include "common/SFormat.h"

#include "core/SFormatHooks.h"

#include <climits>
#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <new>
#include <string>
#include <vector>

namespace VtxQel
{
namespace
{

using Sizes = std::vector<std::size_t>;

TEST(SFormat, NinetyNineCharactersSucceedOnTheFirstAttemptOfAHundred)
{
    const std::string text(99, 'x');
    const Fakes::ScriptedFormatting formatting;
    EXPECT_EQ(SFormat("%s", text.c_str()), text);
    EXPECT_EQ(formatting.Capacities(), Sizes({100}));
}

TEST(SFormat, AHundredCharactersNeedASecondAttemptOfAHundredAndOne)
{
    const std::string text(100, 'x');
    const Fakes::ScriptedFormatting formatting;
    EXPECT_EQ(SFormat("%s", text.c_str()), text);
    EXPECT_EQ(formatting.Capacities(), Sizes({100, 101}));
}

TEST(SFormat, TwoHundredAndFiftyCharactersNeedASecondAttemptOfTwoHundredAndFiftyOne)
{
    const std::string text(250, 'x');
    const Fakes::ScriptedFormatting formatting;
    EXPECT_EQ(SFormat("%s", text.c_str()), text);
    EXPECT_EQ(formatting.Capacities(), Sizes({100, 251}));
}

TEST(SFormat, EveryAttemptReadsTheArgumentsFromTheStart)
{
    const std::string text(300, 'x');
    EXPECT_EQ(SFormat("%s %d %s", text.c_str(), 7, "end"), text + " 7 end");
}

TEST(SFormat, TheResultHasNoTerminatingNul)
{
    EXPECT_EQ(SFormat("%s", "abc").size(), 3U);
    EXPECT_EQ(SFormat("%s", std::string(150, 'y').c_str()).find('\0'), std::string::npos);
}

TEST(SFormat, AnEmptyFormatGivesAnEmptyString)
{
    const std::string format;
    EXPECT_EQ(SFormat(format), "");
}

TEST(SFormat, AFormattingErrorDoublesTheTrialSize)
{
    const Fakes::ScriptedFormatting formatting({-1, -1, -1});
    EXPECT_EQ(SFormat("%d", 42), "42");
    EXPECT_EQ(formatting.Capacities(), Sizes({100, 200, 400, 800}));
}

TEST(SFormat, ACountOfZeroIsNoError)
{
    const Fakes::ScriptedFormatting formatting({0});
    EXPECT_EQ(SFormat("%d", 42), "");
    EXPECT_EQ(formatting.Capacities(), Sizes({100}));
}

TEST(SFormat, AFormatThatNeverSucceedsEndsInBadAlloc)
{
    const Fakes::ScriptedFormatting formatting(std::vector<int>(60, -1), 100000);
    EXPECT_THROW(SFormat("%d", 42), std::bad_alloc);
    // 51,200 is the last size below the limit; the string then asks for twice as much.
    EXPECT_EQ(formatting.Capacities().back(), 51200U);
}

TEST(SFormatDeathTest, ACountThatLeavesThirtyTwoBitsAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const Fakes::ScriptedFormatting formatting({INT_MAX});
            SFormat("%d", 42);
        },
        testing::KilledBySignal(SIGABRT), "");
}

} // namespace
} // namespace VtxQel

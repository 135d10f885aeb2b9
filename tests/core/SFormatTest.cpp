#include "common/SFormat.h"

#include <climits>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

// This program is linked so that SFormat's vsnprintf and every operator new come here: that shows the trial sizes, and
// makes formatting and memory fail on demand.

namespace
{

// Off outside of a Formatter's life, so that the test framework is left alone.
bool g_recording = false;
std::vector<std::size_t> g_capacities;
std::vector<int> g_scriptedCounts;
std::size_t g_largestAllocation = SIZE_MAX;

class Formatter
{
  public:
    explicit Formatter(std::vector<int> scriptedCounts = {})
    {
        g_capacities.reserve(64);
        g_scriptedCounts = std::move(scriptedCounts);
        g_recording = true;
    }
    ~Formatter()
    {
        g_recording = false;
        g_largestAllocation = SIZE_MAX;
        g_capacities.clear();
    }
    Formatter(const Formatter&) = delete;
    Formatter& operator=(const Formatter&) = delete;
};

} // namespace

extern "C"
{
    int __real_vsnprintf(char* buffer, std::size_t size, const char* format, va_list arguments);

    int __wrap_vsnprintf(char* buffer, std::size_t size, const char* format, va_list arguments)
    {
        if (g_recording)
        {
            const std::size_t attempt = g_capacities.size();
            g_capacities.push_back(size);
            if (attempt < g_scriptedCounts.size())
            {
                return g_scriptedCounts[attempt];
            }
        }
        return __real_vsnprintf(buffer, size, format, arguments);
    }
}

void* operator new(std::size_t size)
{
    void* memory = size > g_largestAllocation ? nullptr : std::malloc(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace VtxQel
{
namespace
{

using Sizes = std::vector<std::size_t>;

TEST(SFormat, NinetyNineCharactersSucceedOnTheFirstAttemptOfAHundred)
{
    const std::string text(99, 'x');
    const Formatter formatter;
    EXPECT_EQ(SFormat("%s", text.c_str()), text);
    EXPECT_EQ(g_capacities, Sizes({100}));
}

TEST(SFormat, AHundredCharactersNeedASecondAttemptOfAHundredAndOne)
{
    const std::string text(100, 'x');
    const Formatter formatter;
    EXPECT_EQ(SFormat("%s", text.c_str()), text);
    EXPECT_EQ(g_capacities, Sizes({100, 101}));
}

TEST(SFormat, TwoHundredAndFiftyCharactersNeedASecondAttemptOfTwoHundredAndFiftyOne)
{
    const std::string text(250, 'x');
    const Formatter formatter;
    EXPECT_EQ(SFormat("%s", text.c_str()), text);
    EXPECT_EQ(g_capacities, Sizes({100, 251}));
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
    const Formatter formatter({-1, -1, -1});
    EXPECT_EQ(SFormat("%d", 42), "42");
    EXPECT_EQ(g_capacities, Sizes({100, 200, 400, 800}));
}

TEST(SFormat, ACountOfZeroIsNoError)
{
    const Formatter formatter({0});
    EXPECT_EQ(SFormat("%d", 42), "");
    EXPECT_EQ(g_capacities, Sizes({100}));
}

TEST(SFormat, AFormatThatNeverSucceedsEndsInBadAlloc)
{
    const Formatter formatter(std::vector<int>(60, -1));
    g_largestAllocation = 100000;
    EXPECT_THROW(SFormat("%d", 42), std::bad_alloc);
    // 51,200 is the last size below the limit; the string then asks for twice as much.
    EXPECT_EQ(g_capacities.back(), 51200U);
}

TEST(SFormatDeathTest, ACountThatLeavesThirtyTwoBitsAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const Formatter formatter({INT_MAX});
            SFormat("%d", 42);
        },
        testing::KilledBySignal(SIGABRT), "");
}

} // namespace
} // namespace VtxQel

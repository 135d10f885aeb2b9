#include "broker/BackOff.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace VtxQel
{

TEST(BackOff, TheFirstWaitIsNeverShortAndNeverLong)
{
    for (int i = 0; i < 200; ++i)
    {
        const auto wait = BackOff().Next();
        EXPECT_GE(wait.count(), 500);
        EXPECT_LE(wait.count(), 1500);
    }
}

TEST(BackOff, TheLimitDoublesUpToThirtySeconds)
{
    BackOff backOff;
    std::chrono::milliseconds limit{1500};
    for (int i = 0; i < 100; ++i)
    {
        const auto wait = backOff.Next();
        EXPECT_GE(wait.count(), 500);
        EXPECT_LE(wait, limit);
        limit = std::min(2 * limit, std::chrono::milliseconds(30000));
    }
}

TEST(BackOff, WaitsDiffer)
{
    BackOff backOff;
    std::chrono::milliseconds shortest{30000};
    std::chrono::milliseconds longest{0};
    for (int i = 0; i < 100; ++i)
    {
        const auto wait = backOff.Next();
        shortest = std::min(shortest, wait);
        longest = std::max(longest, wait);
    }
    EXPECT_LT(shortest + std::chrono::milliseconds(5000), longest);
}

TEST(BackOff, EveryAddressIsTriedOnceBeforeTheLimitDoubles)
{
    for (int i = 0; i < 200; ++i)
    {
        BackOff backOff(3);
        for (int address = 0; address < 3; ++address)
        {
            EXPECT_LE(backOff.Next().count(), 1500);
        }
        EXPECT_LE(backOff.Next().count(), 3000);
    }
}

TEST(BackOff, AConnectionThatLastedStartsOver)
{
    BackOff backOff;
    for (int i = 0; i < 10; ++i)
    {
        backOff.Next();
    }
    backOff.Lasted(std::chrono::seconds(15));
    EXPECT_LE(backOff.Next().count(), 1500);
}

TEST(BackOff, AConnectionThatDidNotLastDoesNot)
{
    std::chrono::milliseconds longest{0};
    for (int i = 0; i < 100; ++i)
    {
        BackOff backOff;
        backOff.Next();
        backOff.Next();
        backOff.Lasted(std::chrono::milliseconds(14999));
        longest = std::max(longest, backOff.Next());
    }
    EXPECT_GT(longest.count(), 1500);
}

} // namespace VtxQel

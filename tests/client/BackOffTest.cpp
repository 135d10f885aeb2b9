#include "BackOff.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace qel
{

using Milliseconds = BackOff::Milliseconds;

/** The longest of many first waits, second waits and so on. */
Milliseconds LongestWait(std::size_t number)
{
    Milliseconds longest{0};
    for (int run = 0; run < 400; ++run)
    {
        BackOff pauses(Milliseconds(100), Milliseconds(300));
        Milliseconds wait{0};
        for (std::size_t next = 0; next < number; ++next)
        {
            wait = pauses.Next();
        }
        longest = std::max(longest, wait);
    }
    return longest;
}

TEST(BackOff, WaitsBelowALimitThatDoublesUpToTheLongest)
{
    EXPECT_LE(LongestWait(1), Milliseconds(100));
    EXPECT_LE(LongestWait(2), Milliseconds(200));
    EXPECT_GT(LongestWait(2), Milliseconds(100));
    EXPECT_LE(LongestWait(3), Milliseconds(300));
    EXPECT_GT(LongestWait(9), Milliseconds(200));
    EXPECT_LE(LongestWait(9), Milliseconds(300));
}

TEST(BackOff, StartsAgainAfterAReset)
{
    BackOff pauses(Milliseconds(1), Milliseconds(1000000));
    for (int next = 0; next < 15; ++next)
    {
        pauses.Next();
    }
    pauses.Reset();
    EXPECT_LE(pauses.Next(), Milliseconds(1));
}

} // namespace qel

#include "common/CheckedArithmetic.h"

#include <gtest/gtest.h>

#include <csignal>
#include <limits>

namespace VtxQel
{
namespace
{

constexpr std::int32_t largest = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t smallest = std::numeric_limits<std::int32_t>::min();

TEST(CheckedArithmetic, WhatFitsIsReturned)
{
    EXPECT_EQ(CheckedAdd(largest - 1, 1), largest);
    EXPECT_EQ(CheckedAdd(smallest + 1, -1), smallest);
    EXPECT_EQ(CheckedMultiply(largest / 2, 2), largest - 1);
    EXPECT_EQ(CheckedMultiply(7, -3), -21);
}

TEST(CheckedArithmeticDeathTest, OverflowAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CheckedAdd(largest, 1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(CheckedAdd(smallest, -1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(CheckedMultiply(largest / 2 + 1, 2), testing::KilledBySignal(SIGABRT), "");
}

} // namespace
} // namespace VtxQel

#include "apps/HoldBudget.h"

#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

TEST(HoldBudget, StuckApplicationsLeaveAShareForTheNext)
{
    HoldBudget budget(120, 1000000);
    HeldAmount first;
    HeldAmount second;
    HeldAmount third;
    for (HeldAmount* held : {&first, &second, &third})
    {
        while (!budget.WouldExceedShare(*held, 1))
        {
            ASSERT_TRUE(budget.TryHold(*held, 1));
        }
    }
    EXPECT_EQ(first.messages, 60U);
    EXPECT_EQ(second.messages, 30U);
    EXPECT_EQ(third.messages, 15U);
}

TEST(HoldBudget, ASixteenthIsNeverTooMuchToHold)
{
    HoldBudget budget(160, 1600);
    HeldAmount greedy;
    for (int count = 0; count < 160; ++count)
    {
        ASSERT_TRUE(budget.TryHold(greedy, 10));
    }
    HeldAmount modest{.messages = 9, .bytes = 90};
    EXPECT_FALSE(budget.WouldExceedShare(modest, 10));
    modest.messages = 10;
    EXPECT_TRUE(budget.WouldExceedShare(modest, 10));
    modest = {.messages = 9, .bytes = 91};
    EXPECT_TRUE(budget.WouldExceedShare(modest, 10));
}

TEST(HoldBudget, BytesForAllAreNeverExceeded)
{
    HoldBudget budget(100, 1000);
    HeldAmount first;
    HeldAmount second;
    EXPECT_TRUE(budget.TryHold(first, 600));
    EXPECT_FALSE(budget.TryHold(second, 401));
    EXPECT_EQ(second.messages, 0U);
    EXPECT_EQ(budget.Held().bytes, 600U);
    EXPECT_TRUE(budget.TryHold(second, 400));
    budget.Release(first, 600);
    budget.Release(second, 400);
    EXPECT_EQ(budget.Held().messages, 0U);
    EXPECT_EQ(budget.Held().bytes, 0U);
}

TEST(HoldBudget, AMessageLargerThanTheBoundPassesAlone)
{
    HoldBudget budget(100, 1000);
    HeldAmount held;
    EXPECT_TRUE(budget.TryHold(held, 5000));
    EXPECT_FALSE(budget.TryHold(held, 1));
}

TEST(HoldBudget, EverybodyMaySendOneAndNobodyMoreThanTheShare)
{
    HoldBudget budget(4, 1000);
    HeldAmount first;
    budget.AddSent(first, 100);
    EXPECT_TRUE(budget.MaySend(first, 100));
    budget.AddSent(first, 100);
    EXPECT_FALSE(budget.MaySend(first, 100));
    HeldAmount second;
    for (int count = 0; count < 3; ++count)
    {
        EXPECT_EQ(budget.MaySend(second, 100), count == 0) << count;
        budget.AddSent(second, 100);
    }
    EXPECT_TRUE(budget.MaySend(HeldAmount(), 100000));
    budget.RemoveSent(first, 100);
    EXPECT_EQ(first.messages, 1U);
    EXPECT_EQ(first.bytes, 100U);
}

TEST(HoldBudget, BytesAreSharedLikeMessages)
{
    HoldBudget budget(100, 1000);
    HeldAmount sent;
    budget.AddSent(sent, 300);
    EXPECT_TRUE(budget.MaySend(sent, 400));
    EXPECT_FALSE(budget.MaySend(sent, 401));
}

} // namespace
} // namespace VtxQel

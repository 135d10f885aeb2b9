#include "endpoint/BrokerFrontEnd.h"

#include <gtest/gtest.h>

#include <future>

namespace VtxQel
{
namespace
{

class BrokerFrontEndTest : public testing::Test
{
  protected:
    Scheduler scheduler{"test"};
};

TEST_F(BrokerFrontEndTest, AHintMoves)
{
    std::promise<void> moved;
    BrokerFrontEnd frontEnd([&moved] { moved.set_value(); }, scheduler, std::chrono::seconds(0));
    EXPECT_TRUE(frontEnd.Reassign(6, 180));
    moved.get_future().wait();
    scheduler.Stop();
}

TEST_F(BrokerFrontEndTest, HintsWhileAMoveIsPendingAreOne)
{
    int moves = 0;
    std::promise<void> release;
    scheduler.Post([&release] { release.get_future().wait(); });
    BrokerFrontEnd frontEnd([&moves] { ++moves; }, scheduler, std::chrono::seconds(0));
    EXPECT_TRUE(frontEnd.Reassign(6, 180));
    EXPECT_TRUE(frontEnd.Reassign(6, 180));
    std::promise<void> after;
    scheduler.Post([&after] { after.set_value(); });
    release.set_value();
    after.get_future().wait();
    EXPECT_EQ(moves, 1);
    scheduler.Stop();
}

TEST_F(BrokerFrontEndTest, AnUnknownCodeAndANegativeTimeAreRefused)
{
    BrokerFrontEnd frontEnd([] { FAIL() << "must not move"; }, scheduler, std::chrono::seconds(0));
    EXPECT_FALSE(frontEnd.Reassign(5, 180));
    EXPECT_FALSE(frontEnd.Reassign(6, -1));
    scheduler.Stop();
}

} // namespace
} // namespace VtxQel

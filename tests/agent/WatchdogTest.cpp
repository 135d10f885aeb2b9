#include "agent/Watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace VtxQel;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/** Two threads with different patience, at a time that the test moves on. */
class WatchdogTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        m_first.Rest(false);
        m_second.Rest(false);
    }

    std::vector<std::string> StuckAfter(std::chrono::seconds time)
    {
        m_now += time;
        return m_watchdog.Stuck(m_now);
    }

    Progress m_first;
    Progress m_second;
    Watchdog m_watchdog{{{"first", &m_first, 10s}, {"second", &m_second, 60s}}};
    Watchdog::TimePoint m_now{1h};
};

} // namespace

TEST_F(WatchdogTest, BeginsWithTheFirstLook)
{
    EXPECT_THAT(StuckAfter(100s), IsEmpty());
    EXPECT_THAT(StuckAfter(10s), IsEmpty());
}

TEST_F(WatchdogTest, NamesAThreadThatMakesNoStepForLongerThanItsPatience)
{
    StuckAfter(0s);
    EXPECT_THAT(StuckAfter(11s), ElementsAre("first"));
    EXPECT_THAT(StuckAfter(50s), ElementsAre("first", "second"));
}

TEST_F(WatchdogTest, AStepBeginsTheTimeAnew)
{
    StuckAfter(0s);
    m_first.Step();
    EXPECT_THAT(StuckAfter(11s), IsEmpty());
    EXPECT_THAT(StuckAfter(10s), IsEmpty());
    EXPECT_THAT(StuckAfter(1s), ElementsAre("first"));
}

TEST_F(WatchdogTest, AThreadThatRestsIsNeverStuck)
{
    StuckAfter(0s);
    m_first.Rest(true);
    EXPECT_THAT(StuckAfter(59s), IsEmpty());
    m_first.Rest(false);
    EXPECT_THAT(StuckAfter(2s), ElementsAre("second"));
}

TEST_F(WatchdogTest, AThreadGetsWellAgain)
{
    StuckAfter(0s);
    ASSERT_THAT(StuckAfter(11s), ElementsAre("first"));
    m_first.Step();
    EXPECT_THAT(StuckAfter(1s), IsEmpty());
}

TEST(ProgressTest, NoteIsAStepOfTheCallingThread)
{
    Progress progress;
    Progress::Note();
    EXPECT_EQ(progress.Steps(), 0U);
    std::thread(
        [&progress]
        {
            progress.Attach();
            Progress::Note();
        })
        .join();
    Progress::Note();
    EXPECT_EQ(progress.Steps(), 1U);
}

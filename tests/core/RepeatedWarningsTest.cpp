#include "logging/RepeatedWarnings.h"

#include "fakes/LogCapture.h"

#include <gtest/gtest.h>

#include <string>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;
using std::chrono::seconds;

class RepeatedWarningsTest : public testing::Test
{
  protected:
    void Pass(seconds time) { now += time; }

    const LogCapture log{vtx::LevelWarning};
    RepeatedWarnings::Clock::time_point now{seconds(1000)};
    RepeatedWarnings warnings{[this] { return now; }};
};

TEST_F(RepeatedWarningsTest, TheSameTextIsWrittenOnceInAPause)
{
    warnings.Write("down");
    Pass(RepeatedWarnings::PAUSE - seconds(1));
    warnings.Write("down");
    EXPECT_EQ(log.Lines(), Strings({"4 qel - down"}));
}

TEST_F(RepeatedWarningsTest, HowOftenItWasLeftOutIsSaidTheNextTime)
{
    for (int times = 0; times < 4; ++times)
    {
        warnings.Write("down");
    }
    Pass(RepeatedWarnings::PAUSE);
    warnings.Write("down");
    Pass(RepeatedWarnings::PAUSE);
    warnings.Write("down");
    EXPECT_EQ(
        log.Lines(), Strings({"4 qel - down", "4 qel - down (3 more times since the last such line)", "4 qel - down"}));
}

TEST_F(RepeatedWarningsTest, NoMinuteHasMoreThanTwoLinesOfAText)
{
    for (int second = 0; second <= 60; ++second)
    {
        warnings.Write("down");
        Pass(seconds(1));
    }
    EXPECT_EQ(log.Lines().size(), 2U);
}

TEST_F(RepeatedWarningsTest, AnotherTextIsNews)
{
    warnings.Write("one broker is down");
    warnings.Write("another is down");
    warnings.Write("one broker is down");
    EXPECT_EQ(log.Lines(), Strings({"4 qel - one broker is down", "4 qel - another is down"}));
}

TEST_F(RepeatedWarningsTest, PercentSignsAreText)
{
    warnings.Write("100%s");
    EXPECT_EQ(log.Lines(), Strings({"4 qel - 100%s"}));
}

TEST_F(RepeatedWarningsTest, TheOldestOfTooManyTextsIsForgotten)
{
    warnings.Write("oldest");
    for (std::size_t number = 0; number < RepeatedWarnings::MOST_TEXTS; ++number)
    {
        Pass(std::chrono::seconds(number == 0 ? 1 : 0));
        warnings.Write(std::to_string(number));
    }
    warnings.Write(std::to_string(RepeatedWarnings::MOST_TEXTS - 1));
    EXPECT_EQ(log.Lines().size(), RepeatedWarnings::MOST_TEXTS + 1);
    warnings.Write("oldest");
    EXPECT_EQ(log.Lines().back(), "4 qel - oldest");
}

} // namespace
} // namespace VtxQel

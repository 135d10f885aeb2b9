#include "logging/LogScope.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace VtxQel
{

namespace
{

LogFields About(const std::string& messageId)
{
    return {messageId, "web", 7};
}

} // namespace

TEST(LogScope, LinesOutsideOfAllAreAboutNothing)
{
    EXPECT_EQ(LogScope::Fields(), LogFields());
}

TEST(LogScope, TheInnermostCountsWhileItLives)
{
    const LogScope outer([] { return About("outer"); });
    {
        const LogScope inner([] { return About("inner"); });
        EXPECT_EQ(LogScope::Fields(), About("inner"));
    }
    EXPECT_EQ(LogScope::Fields(), About("outer"));
}

TEST(LogScope, OtherThreadsHaveTheirOwn)
{
    const LogScope mine([] { return About("mine"); });
    LogFields theirs = About("none");
    std::thread([&theirs] { theirs = LogScope::Fields(); }).join();
    EXPECT_EQ(theirs, LogFields());
}

TEST(LogScope, TheMessageIsDescribedWhenALineAsks)
{
    int described = 0;
    const LogScope scope(
        [&described]
        {
            ++described;
            return LogFields();
        });
    EXPECT_EQ(described, 0);
    LogScope::Fields();
    EXPECT_EQ(described, 1);
}

} // namespace VtxQel

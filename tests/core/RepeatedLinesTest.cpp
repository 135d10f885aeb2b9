#include "logging/RepeatedLines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace VtxQel
{

using testing::ElementsAre;
using testing::IsEmpty;

/** Lines at times that the test chooses. */
class RepeatedLinesTest : public testing::Test
{
  protected:
    /** The texts that are written when this line comes. */
    std::vector<std::string> Written(const vtx::LogLine& line)
    {
        std::vector<vtx::LogLine> lines;
        const bool isNew = m_lines.Admit(line, lines);
        if (isNew)
        {
            lines.push_back(line);
        }
        std::vector<std::string> texts;
        std::transform(
            lines.begin(), lines.end(), std::back_inserter(texts), [](const vtx::LogLine& each) { return each.text; });
        return texts;
    }

    std::vector<std::string> Warned(const std::string& text) { return Written({vtx::LevelWarning, "qel", "", text}); }

    void Pass(std::uint64_t times, const std::string& text)
    {
        for (std::uint64_t index = 0; index < times; ++index)
        {
            EXPECT_THAT(Warned(text), ElementsAre(text)) << index;
        }
    }

    RepeatedLines::Clock::time_point m_now{std::chrono::hours(1)};
    RepeatedLines m_lines{[this] { return m_now; }};
};

TEST_F(RepeatedLinesTest, TheFirstFewPassAndTheOthersAreLeftOut)
{
    Pass(RepeatedLines::MOST_ALIKE, "trouble");
    EXPECT_THAT(Warned("trouble"), IsEmpty());
    EXPECT_THAT(Warned("other trouble"), ElementsAre("other trouble"));
    EXPECT_THAT(Written({vtx::LevelError, "qel", "t", "trouble"}), ElementsAre("trouble"));
}

TEST_F(RepeatedLinesTest, TheCountIsToldOnceWithTheNextLineOfAnyKind)
{
    Pass(RepeatedLines::MOST_ALIKE, "trouble\n");
    EXPECT_THAT(Warned("trouble\n"), IsEmpty());
    EXPECT_THAT(Warned("trouble\n"), IsEmpty());
    EXPECT_THAT(Written({vtx::LevelStatus, "qel", "", "up"}), ElementsAre("up"));
    m_now += RepeatedLines::PAUSE;
    EXPECT_THAT(
        Written({vtx::LevelStatus, "qel", "", "up"}),
        ElementsAre("trouble (2 more times since the last such line)", "up"));
    EXPECT_THAT(Written({vtx::LevelStatus, "qel", "", "up"}), ElementsAre("up"));
    Pass(RepeatedLines::MOST_ALIKE, "trouble\n");
}

TEST_F(RepeatedLinesTest, WhatIsNoTroublePassesAlways)
{
    for (std::uint64_t index = 0; index <= RepeatedLines::MOST_ALIKE; ++index)
    {
        EXPECT_THAT(Written({vtx::LevelNotice, "qel", "", "came"}), ElementsAre("came"));
    }
}

TEST_F(RepeatedLinesTest, OfALongTextTheBeginningIsRemembered)
{
    const std::string beginning(RepeatedLines::MOST_TEXT, 'x');
    for (std::uint64_t index = 0; index < RepeatedLines::MOST_ALIKE; ++index)
    {
        Pass(1, beginning + std::to_string(index));
    }
    EXPECT_THAT(Warned(beginning + "another end"), IsEmpty());
    m_now += RepeatedLines::PAUSE;
    EXPECT_THAT(Warned("news"), ElementsAre(beginning + " (1 more times since the last such line)", "news"));
}

TEST_F(RepeatedLinesTest, TheOldestOfTooManyMakesRoomAndItsCountIsTold)
{
    Pass(RepeatedLines::MOST_ALIKE, "oldest");
    EXPECT_THAT(Warned("oldest"), IsEmpty());
    m_now += std::chrono::seconds(1);
    for (std::size_t index = 1; index < RepeatedLines::MOST_LINES; ++index)
    {
        Pass(1, std::to_string(index));
    }
    EXPECT_THAT(Warned("last"), ElementsAre("oldest (1 more times since the last such line)", "last"));
}

} // namespace VtxQel

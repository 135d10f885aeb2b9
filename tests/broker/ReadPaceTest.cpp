#include "broker/ReadPace.h"

#include <gtest/gtest.h>

namespace VtxQel
{

namespace
{

using std::chrono::microseconds;

/** A socket that is read every so often for so long, each read bringing so many messages. */
class ReadPaceTest : public testing::Test
{
  protected:
    microseconds Read(microseconds every, int reads, std::size_t messages, std::size_t bytes = 400)
    {
        microseconds rest{0};
        for (int count = 0; count < reads; ++count)
        {
            m_now += every;
            rest = m_pace.After(m_now, messages, bytes);
        }
        return rest;
    }

    ReadPace::Clock::time_point m_now{std::chrono::hours(1)};
    ReadPace m_pace;
};

} // namespace

TEST_F(ReadPaceTest, AThousandMessagesASecondAreReadAsTheyCome)
{
    EXPECT_EQ(Read(microseconds(1000), 5000, 1).count(), 0);
}

TEST_F(ReadPaceTest, AStreamIsReadWithRests)
{
    EXPECT_EQ(Read(microseconds(20), 200, 1), ReadPace::REST);
}

TEST_F(ReadPaceTest, AStreamStaysOneWhenTheRestsHaveMadeBatchesOfIt)
{
    Read(microseconds(20), 200, 1);
    EXPECT_EQ(Read(ReadPace::REST, 100, 15), ReadPace::REST);
}

TEST_F(ReadPaceTest, WhatIsReadInBulkGoesOnWithoutARest)
{
    Read(microseconds(20), 200, 1);
    EXPECT_EQ(Read(microseconds(100), 1, 200, ReadPace::PLENTY).count(), 0);
    EXPECT_EQ(Read(microseconds(100), 1, 10), ReadPace::REST);
}

TEST_F(ReadPaceTest, AfterAnIntervalTheFirstMessageIsReadAtOnce)
{
    Read(microseconds(20), 200, 1);
    EXPECT_EQ(Read(microseconds(10000), 1, 1).count(), 0);
}

TEST_F(ReadPaceTest, ABurstAfterSilenceIsNoStreamYet)
{
    EXPECT_EQ(Read(microseconds(1000000), 1, 50, 8000).count(), 0);
}

TEST_F(ReadPaceTest, WhatBringsNoMessagesIsNoStream)
{
    EXPECT_EQ(Read(microseconds(10), 1000, 0).count(), 0);
}

} // namespace VtxQel

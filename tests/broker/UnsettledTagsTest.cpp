#include "broker/UnsettledTags.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace VtxQel
{

namespace
{

/** The tags 1 to `count`, delivered. */
UnsettledTags Delivered(std::uint64_t count)
{
    UnsettledTags tags;
    for (std::uint64_t tag = 1; tag <= count; ++tag)
    {
        EXPECT_TRUE(tags.Add(tag));
    }
    return tags;
}

std::vector<std::string> Flush(UnsettledTags& tags)
{
    std::vector<std::string> sent;
    tags.Flush(
        [&](std::uint64_t tag, SettleAs as, bool multiple)
        {
            sent.push_back(
                std::string(
                    as == SettleAs::ack      ? "ack "
                    : as == SettleAs::reject ? "reject "
                                             : "requeue ") +
                std::to_string(tag) + (multiple ? "*" : ""));
        });
    return sent;
}

} // namespace

using testing::ElementsAre;
using testing::IsEmpty;

TEST(UnsettledTags, WhatIsSettledFromTheOldestOnIsOneAcknowledgement)
{
    UnsettledTags tags = Delivered(5);
    for (const std::uint64_t tag : {3U, 1U, 2U})
    {
        tags.Settle(tag, SettleAs::ack);
    }
    EXPECT_THAT(Flush(tags), ElementsAre("ack 3*"));
    EXPECT_EQ(tags.Unsettled(), 2U);
    tags.Settle(4, SettleAs::ack);
    EXPECT_THAT(Flush(tags), ElementsAre("ack 4"));
}

TEST(UnsettledTags, WhatStandsBehindAHoleIsAnsweredSingly)
{
    UnsettledTags tags = Delivered(4);
    tags.Settle(2, SettleAs::ack);
    tags.Settle(4, SettleAs::ack);
    EXPECT_THAT(Flush(tags), ElementsAre("ack 2", "ack 4"));
    tags.Settle(1, SettleAs::ack);
    EXPECT_THAT(Flush(tags), ElementsAre("ack 1"));
    tags.Settle(3, SettleAs::ack);
    EXPECT_THAT(Flush(tags), ElementsAre("ack 3"));
    EXPECT_EQ(tags.Unsettled(), 0U);
}

TEST(UnsettledTags, ARejectGoesBeforeTheAcknowledgementThatWouldSweepItUp)
{
    UnsettledTags tags = Delivered(4);
    tags.Settle(4, SettleAs::ack);
    tags.Settle(3, SettleAs::requeue);
    tags.Settle(2, SettleAs::reject);
    tags.Settle(1, SettleAs::ack);
    EXPECT_THAT(Flush(tags), ElementsAre("reject 2", "requeue 3", "ack 4*"));
}

TEST(UnsettledTags, NothingIsAnsweredTwice)
{
    UnsettledTags tags = Delivered(2);
    EXPECT_TRUE(tags.Settle(2, SettleAs::reject));
    EXPECT_FALSE(tags.Settle(2, SettleAs::ack));
    EXPECT_THAT(Flush(tags), ElementsAre("reject 2"));
    EXPECT_FALSE(tags.Settle(2, SettleAs::ack));
    EXPECT_FALSE(tags.HasNews());
    EXPECT_TRUE(tags.Settle(1, SettleAs::ack));
    EXPECT_THAT(Flush(tags), ElementsAre("ack 1"));
    EXPECT_FALSE(tags.Settle(1, SettleAs::ack));
    EXPECT_THAT(Flush(tags), IsEmpty());
}

TEST(UnsettledTags, UnknownTagsAreIgnored)
{
    UnsettledTags tags = Delivered(1);
    EXPECT_FALSE(tags.Settle(0, SettleAs::ack));
    EXPECT_FALSE(tags.Settle(2, SettleAs::ack));
    EXPECT_EQ(tags.Unsettled(), 1U);
    EXPECT_THAT(Flush(tags), IsEmpty());
}

TEST(UnsettledTags, TagsComeInOrder)
{
    UnsettledTags tags = Delivered(1);
    EXPECT_FALSE(tags.Add(1));
    EXPECT_FALSE(tags.Add(3));
    EXPECT_TRUE(tags.Add(2));
}

} // namespace VtxQel

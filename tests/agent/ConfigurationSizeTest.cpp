#include "agent/ConfigurationSize.h"

#include "appinit/AppInitConfigMsg.pb.h"
#include "common/QelException.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace VtxQel
{

namespace
{

using testing::HasSubstr;
using testing::ThrowsMessage;

void Check(const std::string& body)
{
    CheckConfigurationSize(reinterpret_cast<const std::uint8_t*>(body.data()), body.size());
}

std::string Times(std::size_t count, const std::string& text)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
    {
        all += text;
    }
    return all;
}

} // namespace

TEST(ConfigurationSize, AHundredThousandTopicsWithTheLongestNamesAreTaken)
{
    brelix::vtx::messaging::appinit::AppInitConfigMsg config;
    for (int i = 0; i < 100000; ++i)
    {
        config.add_topic_info()->set_topic(std::string(255, 't'));
        config.mutable_topic_info(i)->set_priority(1);
    }
    EXPECT_NO_THROW(Check(config.SerializeAsString()));
}

TEST(ConfigurationSize, AsManyEntriesAsAllowedAreTakenAndOneMoreIsNot)
{
    const std::string emptyName("\x12\x00", 2);
    EXPECT_NO_THROW(Check(Times(MOST_CONFIGURATION_ENTRIES, emptyName)));
    EXPECT_THAT(
        [&] { Check(Times(MOST_CONFIGURATION_ENTRIES + 1, emptyName)); },
        ThrowsMessage<RmqMessageException>(HasSubstr("more than 250000 topics and queues")));
}

TEST(ConfigurationSize, FieldsThatNobodyKnowsCountToo)
{
    const std::string number("\x78\x01", 2);
    const std::string eight(
        "\x79"
        "12345678",
        9);
    const std::string four(
        "\x7D"
        "1234",
        5);
    const std::string group("\x7B\x7C", 2);
    for (const std::string& field : {number, eight, four, group})
    {
        EXPECT_NO_THROW(Check(Times(1000, field)));
        EXPECT_THROW(Check(Times(MOST_CONFIGURATION_ENTRIES + 1, field)), RmqMessageException);
    }
}

TEST(ConfigurationSize, TooManyBytesAreNotLookedAt)
{
    EXPECT_THAT(
        [] { Check(std::string(MOST_CONFIGURATION_BYTES + 1, 'x')); },
        ThrowsMessage<RmqMessageException>("the configuration has 33554433 bytes; at most 33554432 are taken"));
}

TEST(ConfigurationSize, WhatMakesNoSenseIsLeftToTheDecoder)
{
    EXPECT_NO_THROW(Check(""));
    EXPECT_NO_THROW(Check("\x12"));
    EXPECT_NO_THROW(Check("\x12\xFF\xFF\xFF\xFF\x0F"));
    EXPECT_NO_THROW(Check(std::string(20, '\xFF')));
    EXPECT_NO_THROW(Check(std::string(100, '\0')));
}

} // namespace VtxQel

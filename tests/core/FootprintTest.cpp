#include "common/Footprint.h"

#include <gtest/gtest.h>

#include <string>

namespace VtxQel
{

namespace
{

std::size_t OfHeaders(RmqTable headers)
{
    RmqProperties properties;
    properties.headers = std::move(headers);
    return FootprintOf(properties);
}

} // namespace

TEST(Footprint, OfManySmallHeadersIsThatOfTheirEntries)
{
    const RmqTable headers(65000, {"", RmqValue{}});
    EXPECT_EQ(OfHeaders(headers), 65000 * sizeof(RmqTable::value_type));
}

TEST(Footprint, CountsLongTextsWhereverTheyStand)
{
    const std::string text(100000, 'x');
    const std::size_t entry = sizeof(RmqTable::value_type);
    EXPECT_EQ(OfHeaders({{"k", RmqValue::String(text)}}), entry + text.size());
    EXPECT_EQ(OfHeaders({{text, RmqValue{}}}), entry + text.size());
    EXPECT_EQ(OfHeaders({{"k", {'F', RmqTable{{"k", RmqValue::String(text)}}}}}), 2 * entry + text.size());
    EXPECT_EQ(OfHeaders({{"k", {'A', RmqArray{RmqValue::String(text)}}}}), entry + sizeof(RmqValue) + text.size());
}

} // namespace VtxQel

#include "broker/HeaderCheck.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace VtxQel
{

namespace
{

std::string Number(std::size_t number, unsigned octets)
{
    std::string bytes;
    for (unsigned i = octets; i-- > 0;)
    {
        bytes.push_back(static_cast<char>(number >> (8 * i)));
    }
    return bytes;
}

std::string Sized(const std::string& content)
{
    return Number(content.size(), 4) + content;
}

/** Encoded properties that hold nothing but headers. */
std::string Headers(const std::string& table)
{
    return Number(1U << 13U, 2) + Sized(table);
}

std::string NestedTables(std::size_t depth)
{
    std::string table;
    for (std::size_t i = 1; i < depth; ++i)
    {
        table = std::string("\x01k") + "F" + Sized(table);
    }
    return table;
}

std::string NestedArrays(std::size_t depth)
{
    std::string array;
    for (std::size_t i = 2; i < depth; ++i)
    {
        array = "A" + Sized(array);
    }
    return std::string("\x01k") + "A" + Sized(array);
}

} // namespace

TEST(HeaderCheck, AcceptsPropertiesWithoutHeaders)
{
    EXPECT_EQ(RefuseHeaders(Number(0, 2)), "");
    EXPECT_EQ(
        RefuseHeaders(
            Number(1U << 15U, 2) + "\x03"
                                   "a/b"),
        "");
}

TEST(HeaderCheck, AcceptsTheDepthThatIsAllowedAndRefusesTheNext)
{
    EXPECT_EQ(RefuseHeaders(Headers(NestedTables(MAX_HEADER_DEPTH))), "");
    EXPECT_EQ(RefuseHeaders(Headers(NestedTables(MAX_HEADER_DEPTH + 1))), "headers nested too deeply");
    EXPECT_EQ(RefuseHeaders(Headers(NestedArrays(MAX_HEADER_DEPTH))), "");
    EXPECT_EQ(RefuseHeaders(Headers(NestedArrays(MAX_HEADER_DEPTH + 1))), "headers nested too deeply");
}

TEST(HeaderCheck, RefusesNestingThatWouldOverflowAStack)
{
    EXPECT_EQ(RefuseHeaders(Headers(NestedTables(15000))), "headers nested too deeply");
}

TEST(HeaderCheck, RefusesLengthsThatPointOutside)
{
    EXPECT_EQ(RefuseHeaders(""), "malformed headers");
    EXPECT_EQ(RefuseHeaders(Number(1U << 15U, 2)), "malformed headers");
    EXPECT_EQ(RefuseHeaders(Number(1U << 13U, 2) + Number(5, 4) + "abcd"), "malformed headers");
    EXPECT_EQ(
        RefuseHeaders(Headers("\x05"
                              "ab")),
        "malformed headers");
    EXPECT_EQ(RefuseHeaders(Headers(std::string("\x01kS") + Number(9, 4) + "x")), "malformed headers");
    EXPECT_EQ(RefuseHeaders(Headers(std::string("\x01kI") + "abc")), "malformed headers");
    EXPECT_EQ(RefuseHeaders(Headers("\x01k")), "malformed headers");
}

TEST(HeaderCheck, RefusesKindsThatNobodyKnows)
{
    EXPECT_EQ(RefuseHeaders(Headers("\x01kZ")), "unknown kind of value in the headers");
}

TEST(HeaderCheck, RefusesPropertyFlagsThatGoOn)
{
    EXPECT_EQ(RefuseHeaders(Number(1, 2) + Number(0, 2)), "unknown message properties");
}

} // namespace VtxQel

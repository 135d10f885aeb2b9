#include "common/Printable.h"

#include <gtest/gtest.h>

#include <string_view>

namespace VtxQel
{

TEST(Printable, OrdinaryTextStaysAsItIs)
{
    EXPECT_EQ(Printable(""), "");
    EXPECT_EQ(Printable("plain text, 100 % {} \"quoted\""), "plain text, 100 % {} \"quoted\"");
    EXPECT_EQ(Printable("\xC3\xBC \xE2\x82\xAC \xF0\x9F\x9A\x80"), "\xC3\xBC \xE2\x82\xAC \xF0\x9F\x9A\x80");
}

TEST(Printable, ControlCharactersAreEscaped)
{
    EXPECT_EQ(Printable(std::string_view("a\nb\rc\td\0e", 9)), "a\\x0ab\\x0dc\\x09d\\x00e");
    EXPECT_EQ(Printable("\x1B[31m\x7F"), "\\x1b[31m\\x7f");
    EXPECT_EQ(Printable("\xC2\x9B 31m\xC2\x85"), "\\xc2\\x9b 31m\\xc2\\x85") << "terminals obey these, too";
}

TEST(Printable, WhatSeparatesLinesOrTurnsTheDirectionIsEscaped)
{
    EXPECT_EQ(Printable("a\xE2\x80\xA8z"), "a\\xe2\\x80\\xa8z");
    // Put together, as the compiler's tools want no such character in a literal.
    EXPECT_EQ(Printable(std::string("a\xE2\x80") + "\xAEz"), "a\\xe2\\x80\\xaez");
    EXPECT_EQ(Printable(std::string("a\xE2\x81") + "\xA6z"), "a\\xe2\\x81\\xa6z");
    EXPECT_EQ(Printable("\xD8\x9C"), "\\xd8\\x9c");
}

TEST(Printable, BytesThatAreNotUtf8AreEscapedOneByOne)
{
    EXPECT_EQ(Printable("a\xFFz"), "a\\xffz");
    EXPECT_EQ(Printable("\xE2\x82"), "\\xe2\\x82");
    EXPECT_EQ(Printable("\xE2\x82z"), "\\xe2\\x82z");
    EXPECT_EQ(Printable("\x9B"), "\\x9b");
}

TEST(Printable, AnEscapeCannotBeForged)
{
    EXPECT_EQ(Printable("\\x0a"), "\\x5cx0a");
}

} // namespace VtxQel

#include "qelctl/DeadLetterPrinter.h"

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>

namespace VtxQel
{

namespace
{

using ::testing::HasSubstr;

DeadLetterAt Letter(const std::string& reason, const std::string& body)
{
    DeadLetterAt letter;
    letter.number = 12;
    letter.message.properties = boost::make_shared<RmqProperties>();
    letter.message.properties->type = "my.type";
    letter.message.properties->headers = {
        {"x-qel-reason", RmqValue::String(reason)},
        {"x-qel-application", RmqValue::String("web")},
        {"x-qel-tries", RmqValue::Integer(3)},
        {"x-qel-time", RmqValue::Timestamp(1700000000)}};
    letter.message.body = body;
    return letter;
}

std::string Table(const std::vector<DeadLetterRow>& rows)
{
    std::ostringstream out;
    PrintTable(out, rows);
    return out.str();
}

std::string Whole(const DeadLetterAt& letter, bool json)
{
    std::ostringstream out;
    PrintWhole(out, letter, json);
    return out.str();
}

} // namespace

TEST(DeadLetterPrinter, TheTablesColumnsStandBelowEachOther)
{
    EXPECT_EQ(
        Table({DeadLetterRow::Of(Letter("gr\xc3\xbc\xc3\x9f", "body"))}),
        "NUMBER  TIME                  APPLICATION  REASON  TRIES  ROUTING KEY  TYPE     MESSAGE ID  SIZE\n"
        "    12  2023-11-14T22:13:20Z  web          gr\xc3\xbc\xc3\x9f        3  -            my.type  -              "
        "4\n");
}

TEST(DeadLetterPrinter, ALongOrHostileCellIsCutAndEscaped)
{
    const std::string table = Table({DeadLetterRow::Of(Letter("\x1b[2J" + std::string(2000, 'x'), ""))});

    EXPECT_THAT(table, HasSubstr("  \\u001b[2J" + std::string(36, 'x') + "...  "));
    EXPECT_EQ(DeadLetterRow::Of(Letter(std::string(2000, 'x'), "")).reason.size(), 1000U);
    // Never in the middle of a character.
    std::string two;
    for (int i = 0; i < 600; ++i)
    {
        two += "\xc3\xbc";
    }
    EXPECT_EQ(DeadLetterRow::Of(Letter(two, "")).reason, two.substr(0, 996) + "...");
}

TEST(DeadLetterPrinter, WhatCannotBeReadHasItsNumberAndWhy)
{
    DeadLetterAt letter;
    letter.number = 2;
    letter.unreadable = "nested too deeply";
    std::ostringstream json;
    PrintJson(json, {DeadLetterRow::Of(letter)});

    EXPECT_EQ(nlohmann::json::parse(json.str()), nlohmann::json({{"number", 2}, {"unreadable", "nested too deeply"}}));
    EXPECT_THAT(Table({DeadLetterRow::Of(letter)}), HasSubstr("(unreadable: nested too deeply)"));
    EXPECT_EQ(Whole(letter, false), "number:          2\nunreadable:      nested too deeply\n");
}

TEST(DeadLetterPrinter, AWholeMessageKeepsLinesAndEscapesControls)
{
    const std::string text = Whole(Letter("r", "one\n\"two\"\x1b[2J\x7f\xc2\x9b\t\xc3\xbc"), false);

    EXPECT_THAT(text, HasSubstr("reason:          r\n"));
    EXPECT_THAT(text, HasSubstr("\n  x-qel-tries = 3\n  x-qel-time = {\"timestamp\":1700000000}\n"));
    EXPECT_THAT(text, ::testing::EndsWith("body (19 bytes):\none\n\"two\"\\u001b[2J\\u007f\\u009b\t\xc3\xbc\n"));
}

TEST(DeadLetterPrinter, ABodyThatIsNotTextIsInBase64)
{
    const DeadLetterAt letter = Letter("r", std::string("\xff\x00\x01", 3));

    EXPECT_THAT(Whole(letter, false), HasSubstr("body (3 bytes, in base64):\n/wAB\n"));
    EXPECT_EQ(nlohmann::json::parse(Whole(letter, true)).at("bodyBase64"), "/wAB");
}

TEST(DeadLetterPrinter, TimesBeyondTheCalendarAreNumbers)
{
    EXPECT_EQ(InUtc(std::nullopt), "");
    EXPECT_EQ(InUtc(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(InUtc(18446744073709551615ULL), "18446744073709551615");
    EXPECT_EQ(InUtc(9223372036854775807ULL), "9223372036854775807");
}

} // namespace VtxQel

#include "common/Utf8.h"

#include <gtest/gtest.h>

namespace VtxQel
{

TEST(Utf8, WellFormedTextIsToldFromWhatIsNot)
{
    for (const char* good :
         {"", "a", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEF\xBF\xBF", "\xF0\x90\x80\x80",
          "\xF4\x8F\xBF\xBF", "a\xE2\x82\xACz"})
    {
        EXPECT_TRUE(IsUtf8(good)) << testing::PrintToString(good);
    }
    for (const char* bad :
         {"\x80", "\xC0\xAF", "\xC1\xBF", "\xC2", "\xC2z", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xE2\x82",
          "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "ok\xFE"})
    {
        EXPECT_FALSE(IsUtf8(bad)) << testing::PrintToString(bad);
    }
}

TEST(Utf8, TheFirstCharacterHasItsCodePointAndItsLength)
{
    const auto euro = FirstCharacter("\xE2\x82\xACz");
    ASSERT_TRUE(euro);
    EXPECT_EQ(euro->codePoint, U'\u20ac');
    EXPECT_EQ(euro->length, 3U);
    EXPECT_FALSE(FirstCharacter(""));
    EXPECT_FALSE(FirstCharacter("\xE2\x82"));
}

TEST(Utf8, NulIsACharacter)
{
    const auto nul = FirstCharacter(std::string_view("\0a", 2));
    ASSERT_TRUE(nul);
    EXPECT_EQ(nul->codePoint, U'\0');
    EXPECT_EQ(nul->length, 1U);
}

} // namespace VtxQel

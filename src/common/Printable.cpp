#include "common/Printable.h"

#include "common/Utf8.h"

namespace VtxQel
{

namespace
{

bool IsWithin(char32_t codePoint, char32_t first, char32_t last)
{
    return codePoint >= first && codePoint <= last;
}

bool IsShownAsItIs(char32_t codePoint)
{
    const bool control = codePoint < 0x20 || IsWithin(codePoint, 0x7f, 0x9f);
    const bool separatesLines = codePoint == 0x2028 || codePoint == 0x2029;
    const bool turnsDirection = codePoint == 0x061c || codePoint == 0x200e || codePoint == 0x200f ||
                                IsWithin(codePoint, 0x202a, 0x202e) || IsWithin(codePoint, 0x2066, 0x2069);
    return !control && !separatesLines && !turnsDirection && codePoint != '\\';
}

void AppendEscaped(std::string_view bytes, std::string& shown)
{
    constexpr const char* DIGITS = "0123456789abcdef";
    for (const char character : bytes)
    {
        const auto byte = static_cast<unsigned char>(character);
        shown += "\\x";
        shown += DIGITS[byte >> 4U];
        shown += DIGITS[byte & 0xfU];
    }
}

} // namespace

std::string Printable(std::string_view text)
{
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty())
    {
        const auto character = FirstCharacter(text);
        const std::string_view bytes = text.substr(0, character ? character->length : 1);
        if (character && IsShownAsItIs(character->codePoint))
        {
            shown += bytes;
        }
        else
        {
            AppendEscaped(bytes, shown);
        }
        text.remove_prefix(bytes.size());
    }
    return shown;
}

} // namespace VtxQel

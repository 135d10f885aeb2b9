#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace VtxQel
{

/** A character at the front of a text: its code point and how many bytes it takes. */
struct Utf8Character
{
    char32_t codePoint = 0;
    std::size_t length = 0;
};

/** The first character; nothing when the text is empty or does not start with well-formed UTF-8. */
std::optional<Utf8Character> FirstCharacter(std::string_view text);

/** Whether all of the text is well-formed UTF-8. */
bool IsUtf8(std::string_view text);

} // namespace VtxQel

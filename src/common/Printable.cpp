#include "common/Printable.h"

namespace VtxQel
{

std::string Printable(std::string_view text)
{
    constexpr const char* DIGITS = "0123456789abcdef";
    std::string shown;
    shown.reserve(text.size());
    for (const char character : text)
    {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte != 0x7f && character != '\\')
        {
            shown += character;
            continue;
        }
        shown += "\\x";
        shown += DIGITS[byte >> 4U];
        shown += DIGITS[byte & 0xfU];
    }
    return shown;
}

} // namespace VtxQel

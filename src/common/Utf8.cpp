#include "common/Utf8.h"

#include <boost/locale/utf.hpp>

namespace VtxQel
{

std::optional<Utf8Character> FirstCharacter(std::string_view text)
{
    const char* end = text.data() + text.size();
    const char* next = text.data();
    const boost::locale::utf::code_point found = boost::locale::utf::utf_traits<char>::decode(next, end);
    if (found == boost::locale::utf::illegal || found == boost::locale::utf::incomplete)
    {
        return std::nullopt;
    }
    return Utf8Character{found, static_cast<std::size_t>(next - text.data())};
}

bool IsUtf8(std::string_view text)
{
    while (!text.empty())
    {
        const std::optional<Utf8Character> character = FirstCharacter(text);
        if (!character)
        {
            return false;
        }
        text.remove_prefix(character->length);
    }
    return true;
}

} // namespace VtxQel

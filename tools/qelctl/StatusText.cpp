#include "StatusText.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstdint>
#include <iomanip>
#include <sstream>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr const char* UNKNOWN = "-";

} // namespace

std::string TextOf(const nlohmann::json& value)
{
    if (value.is_null())
    {
        return UNKNOWN;
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::string DurationText(const nlohmann::json& seconds)
{
    if (seconds.is_null())
    {
        return UNKNOWN;
    }
    constexpr std::array<std::pair<std::uint64_t, char>, 4> units{{{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}}};
    auto left = static_cast<std::uint64_t>(seconds.get<double>());
    for (std::size_t at = 0; at + 1 < units.size(); ++at)
    {
        if (left >= units[at].first)
        {
            const auto& [smaller, letter] = units[at + 1];
            return std::to_string(left / units[at].first) + units[at].second + " " +
                   std::to_string(left % units[at].first / smaller) + letter;
        }
    }
    return std::to_string(left) + "s";
}

std::string MillisecondsText(const nlohmann::json& seconds)
{
    if (seconds.is_null())
    {
        return UNKNOWN;
    }
    constexpr double milliseconds = 1000;
    std::ostringstream text;
    text << std::setprecision(3) << seconds.get<double>() * milliseconds << " ms";
    return text.str();
}

std::string ListText(const nlohmann::json& texts)
{
    std::string list;
    for (const nlohmann::json& text : texts)
    {
        list += (list.empty() ? "" : ", ") + TextOf(text);
    }
    return list.empty() ? UNKNOWN : list;
}

} // namespace VtxQel

#pragma once

#include <array>
#include <cstddef>

namespace VtxQel
{

/** What states are called in the admin endpoint's answers, in the order of their enumerations. */

inline constexpr std::array<const char*, 3> ROUTE_STATES{"intended", "in_force", "leaving"};
inline constexpr std::array<const char*, 4> CONFIGURATION_STATES{"missing", "applying", "applied", "failed"};
inline constexpr std::array<const char*, 4> FLOWS{"parked", "draining", "switching", "live"};

/** The name of a state. */
template <std::size_t Count, class State>
const char* NameOf(const std::array<const char*, Count>& names, State state)
{
    return names.at(static_cast<std::size_t>(state));
}

} // namespace VtxQel

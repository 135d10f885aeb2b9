#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace VtxQel
{

/** Values of the agent's status as people read them. What is null is "-". */

/** A text as it is, anything else as JSON writes it. */
std::string TextOf(const nlohmann::json& value);
/** Seconds as "3d 4h", "4h 5m", "5m 6s" or "6s". */
std::string DurationText(const nlohmann::json& seconds);
/** Seconds as "1.5 ms". */
std::string MillisecondsText(const nlohmann::json& seconds);
/** A list of texts, with commas. */
std::string ListText(const nlohmann::json& texts);

} // namespace VtxQel

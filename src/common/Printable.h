#pragma once

#include <string>
#include <string_view>

namespace VtxQel
{

/** The text with control characters and backslashes as \xNN, so that what outsiders wrote cannot forge lines of a log.
 */
std::string Printable(std::string_view text);

} // namespace VtxQel

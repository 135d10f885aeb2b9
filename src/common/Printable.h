#pragma once

#include <string>
#include <string_view>

namespace VtxQel
{

/**
 * The text as it may stand in a log or on a terminal, whoever wrote it: one line of well-formed UTF-8. Control
 * characters, what separates lines or turns the direction of writing, backslashes and bytes that are not UTF-8 become
 * \xNN, byte for byte.
 */
std::string Printable(std::string_view text);

} // namespace VtxQel

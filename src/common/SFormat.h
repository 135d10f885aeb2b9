#pragma once

#include <string>

namespace VtxQel
{

/**
 * Formats the arguments by the printf rules of `format`; strings are passed as their c_str().
 *
 * A format that cannot be carried out (a wide character that the locale does not know, say) is tried again with ever
 * more room, so it ends in std::bad_alloc or, when the size leaves 32 bits, in an abort. May be called from any thread.
 */
std::string SFormat(const std::string& format, ...);

} // namespace VtxQel

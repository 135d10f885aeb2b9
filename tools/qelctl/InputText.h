#pragma once

#include <string>

namespace VtxQel
{

/** The content of a file, or of the standard input when the name is "-". @throws Failure when it cannot be read. */
std::string ReadInput(const std::string& file);

} // namespace VtxQel

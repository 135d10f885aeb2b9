#pragma once

#include <string>

namespace VtxQel
{

/** Whether the bytes are well-formed UTF-8. */
bool IsUtf8(const std::string& bytes);

std::string ToBase64(const std::string& bytes);

/** The bytes fit for a terminal: one line, control characters, quotes and what is not UTF-8 escaped. */
std::string Printable(const std::string& bytes);

} // namespace VtxQel

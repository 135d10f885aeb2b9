#pragma once

#include <string>

namespace VtxQel
{

/** Whether JSON can hold the bytes as a string: whether they are well-formed UTF-8. */
bool IsText(const std::string& bytes);

std::string ToBase64(const std::string& bytes);

/** The bytes fit for a terminal: one line, control characters, quotes and what is not UTF-8 escaped. */
std::string ForTerminal(const std::string& bytes);

} // namespace VtxQel

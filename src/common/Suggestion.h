#pragma once

#include <string>
#include <vector>

namespace VtxQel
{

/** ": did you mean X?" for the candidate closest to `word`, or ": known are A, B" when none is close. */
std::string Suggest(const std::string& word, const std::vector<std::string>& candidates);

} // namespace VtxQel

#pragma once

#include "apps/Setting.h"

#include <string>
#include <vector>

namespace VtxQel
{

/**
 * The settings as a TOML file.
 * @param effective also those that have their default, marked so; what has none is named in a comment.
 */
std::string SettingsText(const std::vector<Setting>& settings, bool effective);

/** The keys whose values differ, of two readings of one file. */
std::vector<std::string> ChangedKeys(const std::vector<Setting>& before, const std::vector<Setting>& now);

} // namespace VtxQel

#pragma once

#include "logging/Logger.h"

#include <string>

namespace VtxQel
{

/**
 * Sends the log to standard error through spdlog, one line each.
 *
 * @param format "text" or "json". Control characters are escaped, so a line stays one line whatever outsiders wrote.
 * The output is never taken down: threads may log while the process exits.
 */
void StartLogOutput(const std::string& format);

/** The name of a log level as it stands in the output. */
const char* LogLevelName(int level);

} // namespace VtxQel

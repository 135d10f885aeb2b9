#pragma once

#include "logging/Logger.h"

#include <string>

namespace VtxQel
{

/**
 * Sends the log to standard error through spdlog, one line each; also what Protocol Buffers has to say.
 *
 * @param format "text" or "json". The text of a line is shown as Printable() shows it, in JSON too, and cut when it is
 * very long, so a line stays one line of bounded length whatever outsiders wrote.
 * The output is never taken down: threads may log while the process exits.
 */
void StartLogOutput(const std::string& format);

/** The name of a log level as it stands in the output. */
const char* LogLevelName(int level);

} // namespace VtxQel

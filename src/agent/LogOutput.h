#pragma once

#include "logging/Logger.h"

#include <string>

namespace VtxQel
{

/**
 * Sends the log to standard error through spdlog, one line each; also what Protocol Buffers has to say.
 *
 * @param format "text"; "journal", the text as the journal wants it: a priority in front and no time; or "json". Where
 * standard error is the journal, "text" means "journal", and "json" has the priority too.
 * Beside its text a line has the fields of its thread's LogScope. What others wrote is shown as Printable() shows it,
 * in JSON too, and cut when it is very long, so a line stays one line of bounded length. Lines that repeat are counted
 * (RepeatedLines).
 * The output is never taken down: threads may log while the process exits.
 */
void StartLogOutput(const std::string& format);

/** The name of a log level as it stands in the output. */
const char* LogLevelName(int level);

} // namespace VtxQel

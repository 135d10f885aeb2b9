#pragma once

#include "logging/LogLevel.h"

#include <functional>
#include <string>

namespace vtx
{

/** One finished line. */
struct LogLine
{
    int level = LevelOff;
    std::string subcomponent;
    /** Empty when the line has none. */
    std::string tag;
    /** Exactly as formatted; a newline at the end is kept, output trims it. */
    std::string text;
};

/** Receives finished lines, on the threads that log and on several at once. */
using LogSink = std::function<void(const LogLine&)>;

/**
 * Installs a sink and returns the one before; an empty sink discards lines, and so does the time before the first.
 *
 * May be called while other threads log: a line being ended at that moment may still reach the sink before. What a sink
 * throws is dropped together with the line, since nothing that logs could do anything about it.
 */
LogSink SetLogSink(LogSink sink);

/**
 * One log line: built up by one thread and ended, that is handed to the sink, by the destructor. A line that an
 * exception interrupts, from one of its arguments for example, is abandoned.
 *
 * Test the level before constructing one, as QEL_LOG (logging/Log.h) does; the logger itself tests nothing.
 */
class Logger
{
  public:
    explicit Logger(LibraryLogLevel level);
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    /** Sets the part of the program that speaks. */
    Logger& subcomp(const char* name);
    /** Attaches a tag. */
    Logger& tag(const char* tag);
    /** Appends to the text by the rules of printf. */
    Logger& put(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /** Lines of a level above this one are not to be built. */
    static LogLevel logLevel;

  private:
    const int m_exceptionsBefore;
    LogLine m_line;
};

} // namespace vtx

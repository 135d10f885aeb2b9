#pragma once

#include "fakes/Journal.h"
#include "logging/Logger.h"

#include <string>

namespace VtxQel::Fakes
{

/** A line as one string: level, subcomponent, tag ("-" for none), text. */
inline std::string Show(const vtx::LogLine& line)
{
    return std::to_string(line.level) + " " + line.subcomponent + " " + (line.tag.empty() ? "-" : line.tag) + " " +
           line.text;
}

/**
 * Collects the log lines written while it lives, at the level given, and puts sink and level back afterwards. With a
 * journal, lines stand there too, as "log: " and the line.
 */
class LogCapture
{
  public:
    explicit LogCapture(int level, Journal* journal = nullptr)
        : m_levelBefore(vtx::Logger::logLevel), m_sinkBefore(vtx::SetLogSink(
                                                    [this, journal](const vtx::LogLine& line)
                                                    {
                                                        m_lines.Note(Show(line));
                                                        if (journal != nullptr)
                                                        {
                                                            journal->Note("log: " + Show(line));
                                                        }
                                                    }))
    {
        vtx::Logger::logLevel = level;
    }
    ~LogCapture()
    {
        vtx::Logger::logLevel = m_levelBefore;
        vtx::SetLogSink(m_sinkBefore);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    Strings Lines() const { return m_lines.Notes(); }
    void Clear() { m_lines.Clear(); }

  private:
    Journal m_lines;
    int m_levelBefore;
    vtx::LogSink m_sinkBefore;
};

} // namespace VtxQel::Fakes

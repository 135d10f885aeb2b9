#pragma once

#include <atomic>

namespace vtx
{

/** How important a line is; smaller is more important. */
enum LibraryLogLevel : int
{
    /** As a global level: nothing is written. */
    LevelOff = 0,
    /** The process cannot go on. */
    LevelFatal = 1,
    /** Something failed; the line carries an error-code tag. */
    LevelError = 2,
    /** The agent's state changed in a way that an operator always wants to see: started, connected, stopped. */
    LevelStatus = 3,
    LevelWarning = 4,
    LevelNotice = 5,
    LevelDetail = 6,
    LevelDebug = 7
};

/**
 * The global log level: an int that every thread may read and change at any time. A change holds from the next line
 * on that is tested. Never destroyed, so threads may still log while the process exits.
 */
class LogLevel
{
  public:
    constexpr explicit LogLevel(int level) noexcept : m_level(level) {}
    LogLevel(const LogLevel& other) noexcept : m_level(static_cast<int>(other)) {}
    ~LogLevel() = default;

    LogLevel& operator=(const LogLevel& other) noexcept { return *this = static_cast<int>(other); }
    LogLevel& operator=(int level) noexcept
    {
        m_level.store(level, std::memory_order_relaxed);
        return *this;
    }

    // Reads like the int that it stands for.
    operator int() const noexcept { return m_level.load(std::memory_order_relaxed); }

  private:
    std::atomic<int> m_level;
};

} // namespace vtx

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace VtxQel
{

/**
 * MinuteLog keeps what outsiders can cause at will from flooding the log: the first event is written at once, those of
 * the following minute together at its end, and so on until a minute passes without any.
 *
 * Any thread. The object outlives the tasks that it gives to `after`.
 */
class MinuteLog
{
  public:
    /** Runs the task once the delay has passed. */
    using After = std::function<void(std::chrono::seconds delay, std::function<void()> task)>;
    /** Writes the line: the text of the last event, and for how many events the line stands. */
    using Write = std::function<void(const std::string& last, std::uint64_t count)>;

    MinuteLog(After after, Write write);

    void Note(const std::string& text);

  private:
    void OnMinute();

    const After m_after;
    const Write m_write;
    std::mutex m_mutex;
    /** Guarded by m_mutex, like the two below: a line was written less than a minute ago. */
    bool m_written = false;
    std::uint64_t m_kept = 0;
    std::string m_last;
};

} // namespace VtxQel

#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

namespace VtxQel
{

/**
 * Complaints writes warnings about what local processes do wrong at one application's socket: one line in ten seconds,
 * with the number of those left out, because who does wrong over and over must not fill the log. Any thread.
 */
class Complaints
{
  public:
    using Clock = std::chrono::steady_clock;

    explicit Complaints(std::string application, std::function<Clock::time_point()> now = Clock::now);

    void Write(const std::string& text);

    static constexpr std::chrono::seconds QUIET_TIME{10};

  private:
    const std::string m_application;
    const std::function<Clock::time_point()> m_now;
    std::mutex m_mutex;
    /** Guarded by m_mutex. */
    Clock::time_point m_quietUntil;
    std::size_t m_unsaid = 0;
};

} // namespace VtxQel

#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace VtxQel
{

/**
 * RepeatedWarnings writes warnings that come again and again while something is broken: each text at once, and then at
 * most every half minute, with the number of times that it was left out. Any thread.
 */
class RepeatedWarnings
{
  public:
    using Clock = std::chrono::steady_clock;

    explicit RepeatedWarnings(std::function<Clock::time_point()> now = Clock::now);

    void Write(const std::string& all);

    /** So that no minute has more than two lines of the same text. */
    static constexpr std::chrono::seconds PAUSE{31};
    /** Texts remembered at most; of more than these in one pause the oldest are news again. */
    static constexpr std::size_t MOST_TEXTS = 64;
    /** What is longer is cut off: a name that somebody sent can have megabytes. */
    static constexpr std::size_t LONGEST_TEXT = 4096;

  private:
    struct Written
    {
        Clock::time_point at;
        std::uint64_t leftOut = 0;
    };

    /** Makes room for one more text. */
    void Forget(Clock::time_point now);

    const std::function<Clock::time_point()> m_now;
    std::mutex m_mutex;
    /** Guarded by m_mutex. */
    std::map<std::string, Written> m_written;
};

} // namespace VtxQel

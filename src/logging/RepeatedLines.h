#pragma once

#include "logging/Logger.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace VtxQel
{

/**
 * RepeatedLines keeps errors and warnings that come over and over from filling the disk: of those that are alike in
 * level, tag and the beginning of their texts the first few of half a minute pass, the others are counted, and the
 * count is told afterwards with the next line of any kind. Lines of other levels pass: they were asked for one by one.
 * Any thread.
 */
class RepeatedLines
{
  public:
    using Clock = std::chrono::steady_clock;

    explicit RepeatedLines(std::function<Clock::time_point()> now = Clock::now);

    /** Whether the line is to be written; before it those that tell the counts that are due. */
    bool Admit(const vtx::LogLine& line, std::vector<vtx::LogLine>& due);

    static constexpr std::chrono::seconds PAUSE{31};
    /** How many lines alike pass within the pause. */
    static constexpr std::uint64_t MOST_ALIKE = 10;
    /** Lines remembered at most; of more than these in one pause the oldest are news again. */
    static constexpr std::size_t MOST_LINES = 64;
    /** What of a text is compared and remembered: others may have written it, at any length. */
    static constexpr std::size_t MOST_TEXT = 4096;

  private:
    using Key = std::tuple<int, std::string, std::string, std::string>;
    struct Seen
    {
        Clock::time_point since;
        std::uint64_t count = 0;
    };
    using Lines = std::map<Key, Seen>;

    /** Forgets the lines whose pause is over, and the oldest when there are too many; tells the counts. */
    void Forget(Clock::time_point now, std::vector<vtx::LogLine>& due);
    Lines::iterator Forget(Lines::iterator entry, std::vector<vtx::LogLine>& due);

    const std::function<Clock::time_point()> m_now;
    /** Whether a count is to be told, so that the other lines need not look. */
    std::atomic<bool> m_owing{false};
    std::mutex m_mutex;
    /** Guarded by m_mutex. */
    Lines m_lines;
};

} // namespace VtxQel

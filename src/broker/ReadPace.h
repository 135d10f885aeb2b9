#pragma once

#include <chrono>
#include <cstddef>

namespace VtxQel
{

/**
 * ReadPace tells how long to let a socket gather bytes before it is read again.
 *
 * A broker that sends messages one by one, tens of thousands a second, wakes every thread on their way for each of
 * them. Read at intervals they travel in batches, and the wake-ups, which cost more than all else, are shared. At a
 * slower rate, or when there is plenty to read, there is no rest: nothing is delayed for which nothing is saved.
 */
class ReadPace
{
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::microseconds REST{300};
    /** Over which the rate is counted. */
    static constexpr std::chrono::milliseconds WINDOW{1};
    /** So many messages in a window are a stream: from three in a rest on. */
    static constexpr std::size_t STREAM = 10;
    /** A read of so many bytes was worth its wake-up. */
    static constexpr std::size_t PLENTY = 16384;

    /** A read has brought these. @return how long to rest before the next one; zero: not at all */
    std::chrono::microseconds After(Clock::time_point now, std::size_t messages, std::size_t bytes)
    {
        m_messages += messages;
        if (now - m_since >= WINDOW)
        {
            m_isStream = m_messages * WINDOW >= STREAM * (now - m_since);
            m_messages = 0;
            m_since = now;
        }
        return m_isStream && bytes < PLENTY ? REST : std::chrono::microseconds(0);
    }

  private:
    Clock::time_point m_since;
    std::size_t m_messages = 0;
    bool m_isStream = false;
};

} // namespace VtxQel

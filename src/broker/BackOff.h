#pragma once

#include <chrono>
#include <random>

namespace VtxQel
{

/**
 * BackOff says how long to wait before the next attempt: at random between half a second and one and a half at first
 * (never at once: a broker that was just lost elects a new leader meanwhile), then up to a limit that doubles with each
 * failure, so that a fleet that lost its broker together does not come back together. Used by one thread.
 */
class BackOff
{
  public:
    using Milliseconds = std::chrono::milliseconds;

    BackOff() : m_random(std::random_device{}()) {}

    /** The wait before the next attempt. */
    Milliseconds Next();
    /** The attempt succeeded and lasted: the next wait is a first one. */
    void Reset() { m_limit = FIRST; }

    static constexpr Milliseconds SHORTEST{500};
    static constexpr Milliseconds FIRST{1500};
    static constexpr Milliseconds LONGEST{30000};

  private:
    Milliseconds m_limit = FIRST;
    std::minstd_rand m_random;
};

} // namespace VtxQel

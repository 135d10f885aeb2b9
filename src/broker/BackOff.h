#pragma once

#include <chrono>
#include <cstddef>
#include <random>

namespace VtxQel
{

/**
 * BackOff says how long to wait before the next attempt: at random between half a second and one and a half at first
 * (never at once: a broker that was just lost elects a new leader meanwhile), then up to a limit that doubles when
 * every address has failed once more, so that a fleet that lost its broker together does not come back together, and
 * one that lost a node of its cluster finds another soon. Used by one thread.
 */
class BackOff
{
  public:
    using Milliseconds = std::chrono::milliseconds;

    /** @param addresses how many there are, tried in turn */
    explicit BackOff(std::size_t addresses = 1) : m_addresses(addresses), m_random(std::random_device{}()) {}

    /** The wait before the next attempt. */
    Milliseconds Next();
    /**
     * The attempt succeeded and lasted this long. When that is long enough, the next wait is a first one: the trouble
     * that made the waits grow is over, and one that comes a minute later has to find another node soon.
     */
    void Lasted(std::chrono::steady_clock::duration time);

    static constexpr Milliseconds SHORTEST{500};
    static constexpr Milliseconds FIRST{1500};
    static constexpr Milliseconds LONGEST{30000};
    static constexpr Milliseconds HEALTHY{15000};

  private:
    std::size_t m_addresses;
    std::size_t m_waits = 0;
    Milliseconds m_limit = FIRST;
    std::minstd_rand m_random;
};

} // namespace VtxQel

#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace qel
{

/** Waits at random between nothing and a limit that doubles up to the longest: full jitter. Used by one thread. */
class BackOff
{
  public:
    using Milliseconds = std::chrono::milliseconds;

    BackOff(Milliseconds first, Milliseconds longest)
        : m_first(first), m_longest(longest), m_limit(first), m_random(std::random_device{}())
    {
    }

    Milliseconds Next()
    {
        const Milliseconds limit = std::min(m_limit, m_longest);
        m_limit = limit * 2;
        return Milliseconds(std::uniform_int_distribution<Milliseconds::rep>(
            0, std::max<Milliseconds::rep>(0, limit.count()))(m_random));
    }
    void Reset() { m_limit = m_first; }

  private:
    const Milliseconds m_first;
    const Milliseconds m_longest;
    Milliseconds m_limit;
    std::minstd_rand m_random;
};

} // namespace qel

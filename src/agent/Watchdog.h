#pragma once

#include "common/Progress.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace VtxQel
{

/** A thread that the watchdog looks at. */
struct WatchedThread
{
    std::string name;
    const Progress* progress = nullptr;
    /** How long one step may take. */
    std::chrono::steady_clock::duration patience{};
};

/**
 * Watchdog tells whether every thread that messages depend on gets on: a thread is stuck when it neither rests nor has
 * made a step for longer than its patience. Not synchronised: one thread calls it.
 */
class Watchdog
{
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /** What the threads' progress refers to outlives the watchdog. */
    explicit Watchdog(std::vector<WatchedThread> threads);

    /** The names of the threads that are stuck, none when all is well. */
    std::vector<std::string> Stuck(TimePoint now);

  private:
    struct Seen
    {
        WatchedThread thread;
        std::uint64_t steps = 0;
        /** Since when there was no step; the first look at a thread begins its time. */
        TimePoint since{};
    };

    std::vector<Seen> m_threads;
};

} // namespace VtxQel

#pragma once

#include "common/Scheduler.h"

#include <chrono>
#include <cstddef>

namespace VtxQel
{

/**
 * Sets what the allocator keeps of freed memory; call it before the first thread starts.
 *
 * By default glibc raises its thresholds with the blocks that it sees: after one body of 30 MiB the next ones come from
 * the heap, and 60 MiB of it stay with the process for good. Large blocks are to go back to the system when they are
 * freed, whatever came before.
 */
void TuneAllocator();

/**
 * MemoryTrimmer gives freed memory back to the system, so that one bad minute does not cost the host memory until the
 * agent is restarted. What is freed between blocks that live longer (a flood of small messages leaves such holes
 * behind) glibc keeps until it is asked.
 *
 * It looks now and then, on the scheduler's thread, and asks only when the process has been at work lately
 * and is larger than it has been: an idle agent is left alone. The scheduler outlives it or is stopped before.
 */
class MemoryTrimmer
{
  public:
    explicit MemoryTrimmer(Scheduler& timers) : m_timers(timers) {}

    /** Begins to look. Call once. */
    void Start();

  private:
    void Look();

    Scheduler& m_timers;
    /** The smallest that the process was. */
    std::size_t m_smallest = 0;
    /** What it had worked at the last look, and whether that was more than an idle agent does. */
    std::chrono::nanoseconds m_worked{0};
    bool m_hadWorked = false;
};

} // namespace VtxQel

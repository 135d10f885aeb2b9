#pragma once

#include <atomic>
#include <cstdint>

namespace VtxQel
{

/**
 * Progress shows a watchdog whether a thread still gets on with its work: it either waits for work or makes steps.
 *
 * Written by one thread, read by any. A step costs one relaxed store: it may be made for every message.
 */
class Progress
{
  public:
    /** Makes this the progress of the calling thread, which Note() then reports to; it outlives the thread. */
    void Attach() { Current() = this; }
    /** The calling thread's progress, if it has one, is a step further: it finished a part of something long. */
    static void Note()
    {
        if (Progress* const progress = Current())
        {
            progress->Step();
        }
    }

    void Step() { m_steps.store(m_steps.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed); }
    /** The thread has nothing to do (or has again). */
    void Rest(bool resting) { m_resting.store(resting, std::memory_order_relaxed); }

    std::uint64_t Steps() const { return m_steps.load(std::memory_order_relaxed); }
    bool IsResting() const { return m_resting.load(std::memory_order_relaxed); }

  private:
    static Progress*& Current()
    {
        thread_local Progress* current = nullptr;
        return current;
    }

    std::atomic<std::uint64_t> m_steps{0};
    std::atomic<bool> m_resting{true};
};

} // namespace VtxQel

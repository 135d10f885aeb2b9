#pragma once

#include "common/Scheduler.h"

#include <chrono>
#include <functional>
#include <string>
#include <utility>

namespace VtxQel
{

/** Time as the applications' module sees it: a clock and calls at a later time. Any thread may call. */
class Timers
{
  public:
    using Clock = std::chrono::steady_clock;

    virtual ~Timers() = default;

    virtual Clock::time_point Now() const = 0;
    /** Calls `task` once `delay` has passed, on a thread of the timers'; there is no way to take it back. */
    virtual void After(Clock::duration delay, std::function<void()> task) = 0;
};

/** Real time, on a scheduler's thread. */
class SchedulerTimers : public Timers
{
  public:
    SchedulerTimers() : m_scheduler("qel-apps-timer") {}

    Clock::time_point Now() const override { return Clock::now(); }
    void After(Clock::duration delay, std::function<void()> task) override
    {
        m_scheduler.After(delay, std::move(task));
    }
    /** Drops what is waiting and ends the thread. */
    void Stop() { m_scheduler.Stop(); }

  private:
    Scheduler m_scheduler;
};

} // namespace VtxQel

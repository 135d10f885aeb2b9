#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include <signal.h>

namespace VtxQel
{

/**
 * Turns SIGINT and SIGTERM into a call on a thread of its own while it lives.
 *
 * Make it before any other thread is started: the signals are blocked in this thread and those that it starts later,
 * and stay blocked. A second signal ends the process at once, as an impatient operator expects.
 */
class StopSignals
{
  public:
    /** @param onStop called once, at the first signal; must not throw. */
    explicit StopSignals(std::function<void()> onStop);
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

  private:
    void Wait();

    const std::function<void()> m_onStop;
    sigset_t m_signals;
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

} // namespace VtxQel

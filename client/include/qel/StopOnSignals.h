#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include <signal.h>

namespace qel
{

/**
 * Turns SIGINT and SIGTERM into a call on a thread of its own while it lives, such as Client::Stop().
 *
 * Make it before any other thread is started, by Client::Run(), Client::Publish() or you: the signals are blocked in
 * this thread and those that it starts later, and stay blocked. A second signal ends the process at once, as an
 * impatient operator expects.
 */
class StopOnSignals
{
  public:
    /** @param onStop called once, at the first signal; must not throw. */
    explicit StopOnSignals(std::function<void()> onStop);
    ~StopOnSignals();
    StopOnSignals(const StopOnSignals&) = delete;
    StopOnSignals& operator=(const StopOnSignals&) = delete;

  private:
    void Wait();

    const std::function<void()> m_onStop;
    sigset_t m_signals;
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

} // namespace qel

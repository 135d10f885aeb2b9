#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace VtxQel
{

/**
 * Scheduler runs tasks on one thread of its own, each at its time, one after the other.
 *
 * Every operation may be called from any thread, also from a task. Tasks that throw end the process: a task catches
 * what it can expect. Stop() lets the running task finish, drops the others and joins the thread; it must not be called
 * from a task. A scheduler whose tasks block delays only its own tasks, so blocking work gets a scheduler of its own.
 */
class Scheduler
{
  public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;

    /** Starts the thread. @param name shown by debuggers and top; at most 15 characters count. */
    explicit Scheduler(const std::string& name);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    /** Runs the task as soon as those before it are done. Dropped without a trace after Stop(). */
    void Post(Task task) { After(Clock::duration::zero(), std::move(task)); }
    /** Runs the task once `delay` has passed; tasks of equal time run in the order of their calls. */
    void After(Clock::duration delay, Task task);
    /** Idempotent. */
    void Stop();

  private:
    using Due = std::pair<Clock::time_point, std::uint64_t>;

    void Run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    /** Guarded by m_mutex, like everything below but the thread. */
    std::map<Due, Task> m_tasks;
    std::uint64_t m_sequence = 0;
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace VtxQel

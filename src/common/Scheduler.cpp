#include "common/Scheduler.h"

#include <pthread.h>

namespace VtxQel
{

Scheduler::Scheduler(const std::string& name) : m_thread([this] { Run(); })
{
    pthread_setname_np(m_thread.native_handle(), name.substr(0, 15).c_str());
}

Scheduler::~Scheduler()
{
    Stop();
}

void Scheduler::After(Clock::duration delay, Task task)
{
    const std::lock_guard lock(m_mutex);
    if (m_stopping)
    {
        return;
    }
    m_tasks.emplace(Due(Clock::now() + delay, m_sequence++), std::move(task));
    m_changed.notify_one();
}

void Scheduler::Stop()
{
    std::map<Due, Task> dropped;
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        dropped.swap(m_tasks);
        m_changed.notify_one();
    }
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

void Scheduler::Run()
{
    std::unique_lock lock(m_mutex);
    while (!m_stopping)
    {
        if (m_tasks.empty())
        {
            m_changed.wait(lock);
            continue;
        }
        const auto next = m_tasks.begin();
        const Clock::time_point due = next->first.first;
        if (Clock::now() < due)
        {
            m_changed.wait_until(lock, due);
            continue;
        }
        Task task = std::move(next->second);
        m_tasks.erase(next);
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

} // namespace VtxQel

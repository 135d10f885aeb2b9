#include "agent/Watchdog.h"

#include <utility>

namespace VtxQel
{

Watchdog::Watchdog(std::vector<WatchedThread> threads)
{
    m_threads.reserve(threads.size());
    for (WatchedThread& thread : threads)
    {
        m_threads.push_back({std::move(thread)});
    }
}

std::vector<std::string> Watchdog::Stuck(TimePoint now)
{
    std::vector<std::string> stuck;
    for (Seen& seen : m_threads)
    {
        const std::uint64_t steps = seen.thread.progress->Steps();
        if (seen.since == TimePoint{} || seen.thread.progress->IsResting() || steps != seen.steps)
        {
            seen.steps = steps;
            seen.since = now;
        }
        else if (now - seen.since > seen.thread.patience)
        {
            stuck.push_back(seen.thread.name);
        }
    }
    return stuck;
}

} // namespace VtxQel

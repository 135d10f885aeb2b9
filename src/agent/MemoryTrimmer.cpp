#include "agent/MemoryTrimmer.h"

#include <algorithm>
#include <ctime>
#include <fstream>

#include <malloc.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

/** Blocks from this size on are mapped one by one: bodies that are far from everyday's. */
constexpr int MAPPED_FROM = 1048576;
/** What the end of each thread's heap may keep. */
constexpr int KEPT_AT_THE_END = 262144;

constexpr std::chrono::seconds INTERVAL{3};
/** Growth that is not worth the work. */
constexpr std::size_t SLACK = 2097152;
/** Less than this in an interval is what an idle agent does. */
constexpr std::chrono::milliseconds WORK{20};

std::size_t ResidentBytes()
{
    std::size_t total = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::chrono::nanoseconds Worked()
{
    timespec used = {};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

} // namespace

void TuneAllocator()
{
    ::mallopt(M_MMAP_THRESHOLD, MAPPED_FROM);
    ::mallopt(M_TRIM_THRESHOLD, KEPT_AT_THE_END);
}

void MemoryTrimmer::Start()
{
    m_smallest = ResidentBytes();
    m_timers.After(INTERVAL, [this] { Look(); });
}

void MemoryTrimmer::Look()
{
    const std::size_t resident = ResidentBytes();
    const bool worked = Worked() - m_worked > WORK;
    // Once more when the work is over: the last of it is freed after a look, and that takes no time worth counting.
    if (resident > m_smallest + SLACK && (worked || m_hadWorked))
    {
        ::malloc_trim(0);
    }
    m_worked = Worked();
    m_hadWorked = worked;
    m_smallest = std::min(m_smallest, resident);
    m_timers.After(INTERVAL, [this] { Look(); });
}

} // namespace VtxQel

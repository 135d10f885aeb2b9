#include "admin/ProcessFigures.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include <sys/resource.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

std::size_t EntriesOf(const char* folder)
{
    std::error_code failed;
    std::filesystem::directory_iterator entries(folder, failed);
    return failed ? 0 : static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

double InSeconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

} // namespace

ProcessFigures ProcessFigures::Read()
{
    ProcessFigures figures;
    std::uint64_t pages = 0;
    std::uint64_t residentPages = 0;
    std::ifstream("/proc/self/statm") >> pages >> residentPages;
    const auto pageSize = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    figures.virtualBytes = pages * pageSize;
    figures.residentBytes = residentPages * pageSize;
    figures.openFiles = EntriesOf("/proc/self/fd");
    figures.threads = EntriesOf("/proc/self/task");
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
    {
        figures.maxFiles = limit.rlim_cur;
    }
    rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) == 0)
    {
        figures.cpuSeconds = InSeconds(usage.ru_utime) + InSeconds(usage.ru_stime);
    }
    return figures;
}

} // namespace VtxQel

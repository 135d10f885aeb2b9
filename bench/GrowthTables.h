#pragma once

#include <cstddef>
#include <string>

#include <malloc.h>

/** What the benchmarks of growth have in common. */
namespace VtxQel
{

/** A topic as applications have them: four words, 30 to 40 characters, not in alphabetical order by number. */
inline std::string TopicOf(std::size_t number)
{
    return "telemetry.site-" + std::to_string(number * 7919 % 1000) + ".device-" + std::to_string(number) + ".state";
}

/** The bytes that the allocator has handed out to this process. */
inline std::size_t HeapBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

inline double PerRoute(std::size_t bytes, std::size_t routes)
{
    return static_cast<double>(bytes) / static_cast<double>(routes);
}

} // namespace VtxQel

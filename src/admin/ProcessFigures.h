#pragma once

#include <cstddef>
#include <cstdint>

namespace VtxQel
{

/** This process as the kernel sees it. What cannot be read is 0. */
struct ProcessFigures
{
    std::uint64_t residentBytes = 0;
    std::uint64_t virtualBytes = 0;
    std::size_t openFiles = 0;
    std::uint64_t maxFiles = 0;
    double cpuSeconds = 0;
    std::size_t threads = 0;

    static ProcessFigures Read();
};

} // namespace VtxQel

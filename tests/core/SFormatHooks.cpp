#include "core/SFormatHooks.h"

#include <cstdarg>
#include <cstdlib>
#include <new>
#include <utility>

namespace
{

bool recording = false;
std::vector<std::size_t> capacities;
std::vector<int> scriptedCounts;
std::size_t allocationLimit = SIZE_MAX;

} // namespace

// The linker's names for the function that is called and the one that is there.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C"
{
    int __real_vsnprintf(char* buffer, std::size_t size, const char* format, va_list arguments);

    int __wrap_vsnprintf(char* buffer, std::size_t size, const char* format, va_list arguments)
    {
        if (recording)
        {
            const std::size_t attempt = capacities.size();
            capacities.push_back(size);
            if (attempt < scriptedCounts.size())
            {
                return scriptedCounts[attempt];
            }
        }
        return __real_vsnprintf(buffer, size, format, arguments);
    }
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(std::size_t size)
{
    void* memory = size > allocationLimit ? nullptr : std::malloc(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace VtxQel::Fakes
{

ScriptedFormatting::ScriptedFormatting(std::vector<int> counts, std::size_t largestAllocation)
{
    capacities.reserve(64);
    scriptedCounts = std::move(counts);
    allocationLimit = largestAllocation;
    recording = true;
}

ScriptedFormatting::~ScriptedFormatting()
{
    recording = false;
    allocationLimit = SIZE_MAX;
    capacities.clear();
    scriptedCounts.clear();
}

const std::vector<std::size_t>& ScriptedFormatting::Capacities() const
{
    return capacities;
}

} // namespace VtxQel::Fakes

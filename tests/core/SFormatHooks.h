#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VtxQel::Fakes
{

/**
 * While one lives, SFormat's vsnprintf notes the capacity it gets and answers the first calls with the counts given;
 * operator new fails above a limit. The program is linked so that both come here (--wrap=vsnprintf); outside of its
 * life they do what they always do. One at a time, on one thread.
 */
class ScriptedFormatting
{
  public:
    explicit ScriptedFormatting(std::vector<int> counts = {}, std::size_t largestAllocation = SIZE_MAX);
    ~ScriptedFormatting();
    ScriptedFormatting(const ScriptedFormatting&) = delete;
    ScriptedFormatting& operator=(const ScriptedFormatting&) = delete;

    /** The capacities of the calls so far. */
    const std::vector<std::size_t>& Capacities() const;
};

} // namespace VtxQel::Fakes

#pragma once

#include <array>
#include <bit>
#include <cstddef>

namespace VtxQel::Fakes
{

/**
 * The slot of a virtual operation in its class's table. The Itanium C++ ABI stores a pointer to a virtual member
 * function as one plus the slot's offset in bytes; the destructor takes the first two slots.
 */
template <class Operation>
std::size_t VirtualSlot(Operation operation)
{
    const auto words = std::bit_cast<std::array<std::ptrdiff_t, 2>>(operation);
    return static_cast<std::size_t>(words[0] - 1) / sizeof(void*);
}

} // namespace VtxQel::Fakes

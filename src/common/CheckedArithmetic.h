#pragma once

#include <cstdint>
#include <cstdlib>

namespace VtxQel
{

/** The sum; aborts the process when it does not fit, whatever flags the caller is compiled with. */
inline std::int32_t CheckedAdd(std::int32_t left, std::int32_t right)
{
    std::int32_t result = 0;
    if (__builtin_add_overflow(left, right, &result))
    {
        std::abort();
    }
    return result;
}

/** The product; aborts the process when it does not fit, whatever flags the caller is compiled with. */
inline std::int32_t CheckedMultiply(std::int32_t left, std::int32_t right)
{
    std::int32_t result = 0;
    if (__builtin_mul_overflow(left, right, &result))
    {
        std::abort();
    }
    return result;
}

} // namespace VtxQel

#include "common/SFormat.h"

#include "common/CheckedArithmetic.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace VtxQel
{
namespace
{

// The signature takes the format by reference and not as a literal. That is outside of what the standard promises for
// va_start, but GCC and Clang define it, and the formats are ours.
#pragma GCC diagnostic ignored "-Wvarargs"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// Enough for nearly every message, so that one attempt does.
constexpr std::int32_t firstTrialSize = 100;

// Ends the argument list on every way out, exceptions included.
struct ArgumentsEnd
{
    va_list& arguments;
    ~ArgumentsEnd() { va_end(arguments); }
};

// Every attempt consumes an argument list, hence the copy.
int TryFormat(std::string& buffer, const std::string& format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_copy has just initialised it
    const int count = std::vsnprintf(buffer.data(), buffer.size(), format.c_str(), copy);
    va_end(copy);
    return count;
}

std::string FormatGrowing(const std::string& format, va_list arguments)
{
    std::string result;
    std::int32_t size = firstTrialSize;
    for (;;)
    {
        result.resize(static_cast<std::size_t>(size));
        const std::int32_t count = TryFormat(result, format, arguments);
        if (count >= 0 && count < size)
        {
            result.resize(static_cast<std::size_t>(count));
            return result;
        }
        size = count >= 0 ? CheckedAdd(count, 1) : CheckedMultiply(size, 2);
    }
}

} // namespace

std::string SFormat(const std::string& format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const ArgumentsEnd end{arguments};
    return FormatGrowing(format, arguments);
}

} // namespace VtxQel

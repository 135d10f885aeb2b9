#pragma once

#include <algorithm>
#include <string>

#include <stdio.h>
#include <stdlib.h>

namespace VtxQel::Fuzz
{

/** Ends the process when an invariant does not hold, so that the fuzzer keeps the input. */
inline void Require(bool holds, const std::string& what)
{
    if (!holds)
    {
        static_cast<void>(fprintf(stderr, "fuzz: this does not hold: %s\n", what.c_str()));
        abort();
    }
}

/** Whether the text can forge nothing where it is shown: it has no control characters. */
inline bool IsOneLine(const std::string& text)
{
    return std::none_of(
        text.begin(), text.end(),
        [](char character) { return static_cast<unsigned char>(character) < 0x20 || character == 0x7f; });
}

} // namespace VtxQel::Fuzz

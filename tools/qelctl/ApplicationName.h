#pragma once

#include <CLI/CLI.hpp>

namespace VtxQel
{

/** Accepts what an application may be called: 1 to 64 letters, digits, dots, underscores and hyphens. */
CLI::Validator ApplicationNameValidator();

} // namespace VtxQel

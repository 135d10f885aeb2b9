#pragma once

#include <stdexcept>
#include <string>

namespace VtxQel
{

/** Why a verb did not do what it was asked for, in one line for the operator: what, where and the cure. Status 1. */
class Failure : public std::runtime_error
{
  public:
    explicit Failure(const std::string& text) : std::runtime_error(text) {}
};

/** The command line asks for something that makes no sense. Status 2. */
class UsageError : public std::runtime_error
{
  public:
    explicit UsageError(const std::string& text) : std::runtime_error(text) {}
};

} // namespace VtxQel

#pragma once

#include <stdexcept>
#include <string>

namespace VtxQel
{

/**
 * Why a verb did not do what it was asked for, in one line for the operator: what, where and the cure. qelctl ends with
 * its status, 1 when there is nothing special to tell.
 */
class Failure : public std::runtime_error
{
  public:
    explicit Failure(const std::string& text, int status = 1) : std::runtime_error(text), m_status(status) {}

    int Status() const { return m_status; }

  private:
    int m_status;
};

/** The command line asks for something that makes no sense. Status 2. */
class UsageError : public std::runtime_error
{
  public:
    explicit UsageError(const std::string& text) : std::runtime_error(text) {}
};

} // namespace VtxQel

#include "logging/LogScope.h"

#include <utility>

namespace VtxQel
{

namespace
{

thread_local const LogScope* innermost = nullptr;

} // namespace

LogScope::LogScope(Describe describe) : m_describe(std::move(describe)), m_outer(std::exchange(innermost, this)) {}

LogScope::~LogScope()
{
    innermost = m_outer;
}

LogFields LogScope::Fields()
{
    return innermost == nullptr ? LogFields() : innermost->m_describe();
}

} // namespace VtxQel

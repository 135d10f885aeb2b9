#pragma once

#include "common/QelException.h"

#include <string>

namespace VtxQel
{

/** Something about a local application's settings or socket is wrong. */
class AppsException : public QelException
{
  public:
    explicit AppsException(const std::string& message) : QelException(message) {}

    const char* what() const noexcept override { return m_message.c_str(); }
};

} // namespace VtxQel

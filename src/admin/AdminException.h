#pragma once

#include "common/QelException.h"

#include <string>

namespace VtxQel
{

/** The admin endpoint cannot be served as asked, or a request cannot be understood. */
class AdminException : public QelException
{
  public:
    explicit AdminException(const std::string& message) : QelException(message) {}

    const char* what() const noexcept override { return m_message.c_str(); }
};

} // namespace VtxQel

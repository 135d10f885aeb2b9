#include "common/QelException.h"

namespace VtxQel
{

QelException::QelException(const std::string& message) : m_message(message) {}

QelException::~QelException() = default;

QelScopeException::QelScopeException(const std::string& message) : QelException(message) {}

QelScopeException::~QelScopeException() = default;

const char* QelScopeException::what() const noexcept
{
    return m_message.c_str();
}

RmqException::RmqException(const std::string& message) : QelException(message) {}

RmqException::~RmqException() = default;

const char* RmqException::what() const noexcept
{
    return m_message.c_str();
}

RmqMessageException::RmqMessageException(const std::string& message) : RmqException(message) {}

RmqMessageException::~RmqMessageException() = default;

RmqConnectionException::RmqConnectionException(const std::string& message) : RmqException(message) {}

RmqConnectionException::~RmqConnectionException() = default;

} // namespace VtxQel

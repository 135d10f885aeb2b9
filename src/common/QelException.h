#pragma once

#include <exception>
#include <string>

namespace VtxQel
{

/**
 * Base of everything that the agent throws on its own account; its only content is a message.
 *
 * Thrown and copied by value. what() stays valid as long as the exception object lives.
 */
class QelException : public std::exception
{
  public:
    explicit QelException(const std::string& message);
    QelException(const QelException&) = default;
    QelException& operator=(const QelException&) = default;
    ~QelException() override;

    /** The message. */
    const char* what() const noexcept override = 0;

  protected:
    std::string m_message;
};

/** A collaborator is gone: the message is the run-time type name of its class. */
class QelScopeException : public QelException
{
  public:
    explicit QelScopeException(const std::string& message);
    QelScopeException(const QelScopeException&) = default;
    QelScopeException& operator=(const QelScopeException&) = default;
    ~QelScopeException() override;

    const char* what() const noexcept override;
};

/** Something about the broker went wrong. */
class RmqException : public QelException
{
  public:
    explicit RmqException(const std::string& message);
    RmqException(const RmqException&) = default;
    RmqException& operator=(const RmqException&) = default;
    ~RmqException() override;

    const char* what() const noexcept override;
};

/** One message could not be handled; the next one may well be. */
class RmqMessageException : public RmqException
{
  public:
    explicit RmqMessageException(const std::string& message);
    RmqMessageException(const RmqMessageException&) = default;
    RmqMessageException& operator=(const RmqMessageException&) = default;
    ~RmqMessageException() override;
};

/** A broker operation failed. */
class RmqConnectionException : public RmqException
{
  public:
    explicit RmqConnectionException(const std::string& message);
    RmqConnectionException(const RmqConnectionException&) = default;
    RmqConnectionException& operator=(const RmqConnectionException&) = default;
    ~RmqConnectionException() override;
};

} // namespace VtxQel

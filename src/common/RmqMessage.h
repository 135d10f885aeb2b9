#pragma once

#include "common/RmqTable.h"

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace VtxQel
{

/** The body of a received message. The bytes live as long as this record is held, which does not keep the message. */
struct RmqBody
{
    std::size_t length;
    const std::uint8_t* bytes;
};

/**
 * The basic properties of a message (AMQP 0-9-1, class basic). An empty string is an absent property. Strings hold
 * whatever bytes the publisher put there: the broker does not check that they are UTF-8.
 */
struct RmqProperties
{
    std::string type;
    std::string replyTo;
    std::string correlationId;

    std::string appId;
    std::string messageId;
    /** The publisher's name; when present the broker has compared it with the publisher's login. */
    std::string userId;
    std::string contentType;
    std::string contentEncoding;
    /** Time to live as the publisher wrote it: milliseconds in decimal digits. */
    std::string expiration;
    std::optional<std::uint8_t> deliveryMode;
    std::optional<std::uint8_t> priority;
    /** Seconds since 1970-01-01T00:00:00Z. */
    std::optional<std::uint64_t> timestamp;
    RmqTable headers;
};

/**
 * A message received from the broker.
 *
 * Always passed as boost::shared_ptr by value: whoever holds one keeps body and properties alive. Implementations do
 * not change after construction, so every operation may be called from any thread.
 */
class RmqMessage
{
  public:
    virtual ~RmqMessage() = default;

    /** The body record; never empty, its `bytes` may be null only when the length is 0. */
    virtual boost::shared_ptr<RmqBody> GetBody() const = 0;
    /** The body's length in bytes. */
    virtual std::size_t GetBodyLength() const = 0;
    /** The name of the application that the message is for; empty when nobody is known. */
    virtual const std::string& GetAppName() const = 0;
    /** The properties record; never empty. */
    virtual boost::shared_ptr<RmqProperties> GetProperties() const = 0;
    /** The message in printable form, for logs: one line, control characters escaped, the body's size, no content. */
    virtual std::string ToString() const = 0;
};

} // namespace VtxQel

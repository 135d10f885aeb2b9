#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace qel
{

struct HeaderValue;
struct Header;
using HeaderArray = std::vector<HeaderValue>;
/** In the order in which they travel; names may repeat. */
using Headers = std::vector<Header>;

/** value divided by ten to the power of decimals. */
struct Decimal
{
    std::uint32_t decimals = 0;
    std::uint32_t value = 0;
};

/** The value of a header; std::monostate is a header without one. */
struct HeaderValue
{
    std::variant<
        std::monostate, bool, std::int64_t, double, std::string, HeaderArray, Headers, std::chrono::sys_seconds,
        Decimal>
        value;
};

struct Header
{
    std::string name;
    HeaderValue value;
};

/** The value of the first header of that name; nullptr when there is none. */
const HeaderValue* Find(const Headers& headers, const std::string& name);

/** The AMQP basic properties; what is empty is not sent. */
struct Properties
{
    std::string type;
    std::string replyTo;
    std::string correlationId;
    std::string appId;
    std::string messageId;
    std::string userId;
    std::string contentType;
    std::string contentEncoding;
    /** Milliseconds in decimal digits. */
    std::string expiration;
    std::optional<std::uint32_t> deliveryMode;
    std::optional<std::uint32_t> priority;
    std::optional<std::chrono::sys_seconds> timestamp;
    Headers headers;
};

/** A message that the application is given. */
struct Message
{
    std::string exchange;
    std::string routingKey;
    /** The queue it came from. */
    std::string queue;
    std::string body;
    Properties properties;
    /** It was delivered before: it may have been worked on already. */
    bool redelivered = false;
    /** How often it was given to this application before. */
    std::uint32_t tries = 0;
    /** Whether it came by the priority queue. */
    bool priority = false;
    /** The same each time that the message comes, when its publisher gave it a messageId; else empty. */
    std::string idempotencyKey;
};

/** A message that the application sends. */
struct Publication
{
    /** Empty: the default exchange, where routingKey names a queue. */
    std::string exchange;
    std::string routingKey;
    std::string body;
    /** Without a messageId Client::Publish() makes one up; without a deliveryMode the message is persistent. */
    Properties properties;
    /** Whether it is an error that no queue takes it; otherwise the broker drops it. */
    bool noRouteIsError = true;
};

/**
 * The answer to a request: goes to its replyTo with its correlationId. It is not an error when the requester is gone.
 * @throws std::invalid_argument when the request has no replyTo.
 */
Publication ReplyTo(const Message& request, std::string body);

} // namespace qel

#pragma once

#include "common/RmqMessage.h"

#include <chrono>
#include <functional>
#include <string>

namespace VtxQel
{

/** A message to publish. */
struct OutgoingMessage
{
    /** The empty name is the broker's default exchange, which delivers to the queue named by the routing key. */
    std::string exchange;
    std::string routingKey;
    RmqProperties properties;
    std::string body;
    /** Whether a message that no queue takes is an error (PublishResult::noRoute). Never set it for direct reply-to. */
    bool mandatory = false;
    /** How long the publisher is ready to wait for the confirm. */
    std::chrono::milliseconds deadline{30000};
};

/** What became of a published message. */
enum class PublishResult
{
    /** The broker has taken responsibility for it. */
    confirmed,
    /** It was mandatory and no queue is bound for its routing key. */
    noRoute,
    /** The broker or a limit refuses it for good: no such exchange, no permission, bad property, body too large. */
    refused,
    /** No confirm within the deadline; the broker may or may not have it. */
    timedOut,
    /** The deadline passed before it could be sent: the broker was away or took no messages. */
    notSent,
    /** Too much is waiting to be published already (the broker is blocked or away); it was not sent. */
    overloaded
};

/** The answer to Publisher::Publish, with a line that says why when the result is not `confirmed`. */
using PublishCompletion = std::function<void(PublishResult result, const std::string& why)>;

/** Publishes with confirms. May be called from any thread; never blocks. */
class Publisher
{
  public:
    virtual ~Publisher() = default;

    /**
     * Publishes and reports the outcome exactly once, on a thread of the publisher's. The completion must not block.
     * Bad arguments (names over 255 bytes, properties that cannot be encoded) are reported as `refused`.
     */
    virtual void Publish(OutgoingMessage message, PublishCompletion completion) = 0;
};

} // namespace VtxQel

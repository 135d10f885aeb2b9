#pragma once

#include "broker/BrokerLink.h"

#include <cstdint>
#include <optional>
#include <string>

namespace VtxQel
{

/**
 * What a dead letter tells of itself, read from the headers of the agent or, when the broker has dead-lettered the
 * message by itself, from the broker's x-death. A plain value; what is not known is empty.
 */
struct DeadLetter
{
    std::string reason;
    /** The receiver that did not take it. Empty when no single one is known: nobody has got the message then. */
    std::string application;
    std::optional<std::uint64_t> tries;
    /** When it was dead-lettered, in seconds since 1970-01-01T00:00:00Z. */
    std::optional<std::uint64_t> time;
    /** Where it was published to and which queue it was consumed from. */
    std::string exchange;
    std::string routingKey;
    std::string queue;
    /** What the message had as these properties before it was dead-lettered. */
    std::string userId;
    std::string expiration;
    /** Whether exchange and routing key are known, be they empty. */
    bool routed = false;

    static DeadLetter Of(const RmqProperties& properties);
};

/** Which dead letters a verb is about; what is not given lets everything pass. */
struct DeadLetterFilter
{
    std::optional<std::string> application;
    /** Part of the reason. */
    std::optional<std::string> reason;
    std::optional<std::string> messageId;

    bool IsEmpty() const { return !application && !reason && !messageId; }
    bool Matches(const DeadLetter& letter, const RmqProperties& properties) const;
};

/** Where a replayed message goes. */
enum class ReplayTo
{
    /** To the application when the dead letter names one, else where it was published to. */
    best,
    original,
    application
};

/**
 * The message as it is published again: without what agent and broker have added, its expiration restored, without its
 * user-id, which the broker would take from the original publisher only. The body is moved from `incoming` on success.
 * @param clientQueue where messages for an application go.
 * @return nothing when the dead letter does not say where to; it is unchanged then.
 */
std::optional<OutgoingMessage> MakeReplay(IncomingMessage& incoming, ReplayTo to, const std::string& clientQueue);

} // namespace VtxQel

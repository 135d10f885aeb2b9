#pragma once

#include "broker/BrokerLink.h"
#include "broker/RpcChannel.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace VtxQel
{

/** Something to be done on the broker: asked for by a thread, or one item of a topology that is restored. */
struct TopologyRequest
{
    using Clock = std::chrono::steady_clock;
    using Done = std::function<void(const RequestResult& result, const QueueCounts& counts)>;

    enum class Kind
    {
        declareExchange,
        declareQueue,
        bind,
        unbind,
        cancelQueue,
        releaseQueue,
        countMessages
    };

    Kind kind = Kind::bind;
    ExchangeSpec exchange;
    /** For the operations that only name a queue, its name alone counts. */
    QueueSpec queue;
    Binding binding;
    /** Called once; afterwards empty, which also says that the request is over. */
    Done done;
    /** Has no deadline and ends with its connection. */
    bool restoring = false;
    Clock::time_point deadline;
    /** Whatever watches the deadline; destroyed when the request is over. */
    std::shared_ptr<void> timer;

    /** How often it failed for the time being. */
    unsigned failures = 0;
    /** Since when the broker says that somebody else has the queue. */
    std::optional<Clock::time_point> inUseSince;
    /** The missing queue was declared again on its behalf. */
    bool redeclared = false;
    RequestResult lastFailure;

    std::string ToString() const;
};

/** Requests that make something again on a new connection. */
std::shared_ptr<TopologyRequest> ToRestore(const ExchangeSpec& exchange);
std::shared_ptr<TopologyRequest> ToRestore(const QueueSpec& queue);
std::shared_ptr<TopologyRequest> ToRestore(const Binding& binding);

/** What the broker's reply means for a request. */
enum class Outcome
{
    ok,
    /** For good. */
    refused,
    /** Worth repeating: the connection ended, a node is down, the broker has trouble of its own. */
    transient,
    /** Somebody else has the queue, who may be our predecessor that the broker has not noticed to be gone. */
    inUse,
    /** A bind that lacks its queue or exchange. */
    missing
};

Outcome Classify(TopologyRequest::Kind kind, const RpcReply& reply);

/** The answer to a request with a name that must not be sent: empty when all are at most 255 bytes of UTF-8. */
std::optional<RequestResult> AnswerWithoutBroker(const TopologyRequest& request);

} // namespace VtxQel

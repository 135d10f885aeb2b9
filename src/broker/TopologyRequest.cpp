#include "broker/TopologyRequest.h"

#include "common/Utf8.h"

#include <amqp.h>

namespace VtxQel
{

namespace
{

using Kind = TopologyRequest::Kind;

constexpr std::size_t LONGEST_NAME = 255;

bool Mentions(const RpcReply& reply, const char* words)
{
    return reply.text.find(words) != std::string::npos;
}

bool CanBeSent(const std::string& name)
{
    return name.size() <= LONGEST_NAME && IsUtf8(name);
}

std::shared_ptr<TopologyRequest> Restoring(Kind kind)
{
    auto request = std::make_shared<TopologyRequest>();
    request->kind = kind;
    request->restoring = true;
    return request;
}

} // namespace

std::shared_ptr<TopologyRequest> ToRestore(const ExchangeSpec& exchange)
{
    auto request = Restoring(Kind::declareExchange);
    request->exchange = exchange;
    return request;
}

std::shared_ptr<TopologyRequest> ToRestore(const QueueSpec& queue)
{
    auto request = Restoring(Kind::declareQueue);
    request->queue = queue;
    return request;
}

std::shared_ptr<TopologyRequest> ToRestore(const Binding& binding)
{
    auto request = Restoring(Kind::bind);
    request->binding = binding;
    return request;
}

std::string TopologyRequest::ToString() const
{
    switch (kind)
    {
    case Kind::declareExchange:
        return "exchange '" + exchange.name + "'";
    case Kind::declareQueue:
        return "queue '" + queue.name + "'";
    case Kind::bind:
        return "binding of '" + binding.topic + "' on exchange '" + binding.exchange + "' to queue '" + binding.queue +
               "'";
    case Kind::unbind:
        return "unbinding of '" + binding.topic + "' on exchange '" + binding.exchange + "' from queue '" +
               binding.queue + "'";
    case Kind::cancelQueue:
        return "cancelling of queue '" + queue.name + "'";
    case Kind::releaseQueue:
        return "release of queue '" + queue.name + "'";
    case Kind::countMessages:
        return "message count of queue '" + queue.name + "'";
    }
    return {};
}

Outcome Classify(Kind kind, const RpcReply& reply)
{
    if (reply.ok)
    {
        return Outcome::ok;
    }
    switch (reply.code)
    {
    case AMQP_ACCESS_REFUSED:
        return kind == Kind::declareQueue && Mentions(reply, "in exclusive use") ? Outcome::inUse : Outcome::refused;
    case AMQP_NOT_FOUND:
        if (kind == Kind::unbind || Mentions(reply, "home node"))
        {
            return Outcome::transient;
        }
        return kind == Kind::bind ? Outcome::missing : Outcome::refused;
    case AMQP_RESOURCE_LOCKED:
        return kind == Kind::declareQueue ? Outcome::inUse : Outcome::refused;
    case AMQP_PRECONDITION_FAILED:
        return kind == Kind::unbind ? Outcome::transient : Outcome::refused;
    case AMQP_SYNTAX_ERROR:
        // Ours: the request could not be encoded.
        return Outcome::refused;
    default:
        return Outcome::transient;
    }
}

std::optional<RequestResult> AnswerWithoutBroker(const TopologyRequest& request)
{
    const Binding& binding = request.binding;
    if (CanBeSent(request.exchange.name) && CanBeSent(request.queue.name) && CanBeSent(binding.queue) &&
        CanBeSent(binding.exchange) && CanBeSent(binding.topic))
    {
        return std::nullopt;
    }
    switch (request.kind)
    {
    case Kind::unbind:
    case Kind::cancelQueue:
    case Kind::releaseQueue:
        return RequestResult{Answer::ok, 0, "such a name can never have existed"};
    default:
        return RequestResult{Answer::refused, 0, "a name is longer than 255 bytes or not UTF-8"};
    }
}

} // namespace VtxQel

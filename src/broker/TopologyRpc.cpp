#include "broker/TopologyRpc.h"

#include <utility>

namespace VtxQel
{

using Kind = TopologyRequest::Kind;

namespace
{

amqp_method_number_t MethodOf(Kind kind)
{
    switch (kind)
    {
    case Kind::declareExchange:
        return AMQP_EXCHANGE_DECLARE_METHOD;
    case Kind::bind:
        return AMQP_QUEUE_BIND_METHOD;
    case Kind::unbind:
        return AMQP_QUEUE_UNBIND_METHOD;
    default:
        return AMQP_QUEUE_DECLARE_METHOD;
    }
}

void DeclareExchange(const ExchangeSpec& exchange, AmqpConnection& connection, std::uint16_t channel)
{
    amqp_exchange_declare_t declare{};
    declare.exchange = ToAmqp(exchange.name);
    declare.type = ToAmqp(exchange.type);
    declare.passive = exchange.passive ? 1 : 0;
    declare.durable = 1;
    connection.Send(channel, AMQP_EXCHANGE_DECLARE_METHOD, declare);
}

void DeclareQueue(const QueueSpec& queue, AmqpConnection& connection, std::uint16_t channel)
{
    AmqpPool pool;
    amqp_queue_declare_t declare{};
    declare.queue = ToAmqp(queue.name);
    declare.passive = queue.passive ? 1 : 0;
    declare.durable = queue.durable ? 1 : 0;
    declare.exclusive = queue.exclusive ? 1 : 0;
    declare.auto_delete = queue.autoDelete ? 1 : 0;
    declare.arguments = ToAmqp(queue.arguments, pool);
    connection.Send(channel, AMQP_QUEUE_DECLARE_METHOD, declare);
}

void Count(const QueueSpec& queue, AmqpConnection& connection, std::uint16_t channel)
{
    amqp_queue_declare_t declare{};
    declare.queue = ToAmqp(queue.name);
    declare.passive = 1;
    connection.Send(channel, AMQP_QUEUE_DECLARE_METHOD, declare);
}

void Bind(const Binding& binding, AmqpConnection& connection, std::uint16_t channel)
{
    connection.Send(
        channel, AMQP_QUEUE_BIND_METHOD,
        amqp_queue_bind_t{
            0, ToAmqp(binding.queue), ToAmqp(binding.exchange), ToAmqp(binding.topic), 0, amqp_empty_table});
}

void Unbind(const Binding& binding, AmqpConnection& connection, std::uint16_t channel)
{
    connection.Send(
        channel, AMQP_QUEUE_UNBIND_METHOD,
        amqp_queue_unbind_t{
            0, ToAmqp(binding.queue), ToAmqp(binding.exchange), ToAmqp(binding.topic), amqp_empty_table});
}

void Send(const TopologyRequest& request, AmqpConnection& connection, std::uint16_t channel)
{
    switch (request.kind)
    {
    case Kind::declareExchange:
        DeclareExchange(request.exchange, connection, channel);
        break;
    case Kind::bind:
        Bind(request.binding, connection, channel);
        break;
    case Kind::unbind:
        Unbind(request.binding, connection, channel);
        break;
    case Kind::countMessages:
        Count(request.queue, connection, channel);
        break;
    default:
        DeclareQueue(request.queue, connection, channel);
        break;
    }
}

} // namespace

Rpc ToRpc(const std::shared_ptr<const TopologyRequest>& request, std::function<void(const RpcReply& reply)> done)
{
    return {
        MethodOf(request->kind),
        [request](AmqpConnection& connection, std::uint16_t channel) { Send(*request, connection, channel); },
        std::move(done)};
}

} // namespace VtxQel

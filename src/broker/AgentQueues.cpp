#include "broker/AgentQueues.h"

namespace VtxQel
{

namespace
{

/**
 * How often the broker delivers one message before it dead-letters it by itself: a message that ends the process each
 * time must not do so for ever. A lost connection counts as well, for everything that was sent ahead on it, and a bad
 * network loses many: it takes more than half an hour to lose so many with the waits between them.
 */
constexpr std::int64_t DELIVERY_LIMIT = 200;

} // namespace

QueueSpec OwnQueue(const BrokerSettings& settings, const std::string& name)
{
    QueueSpec queue = SingleConsumerQueue(settings, name, settings.prefetch);
    queue.arguments.emplace_back("x-dead-letter-exchange", RmqValue::String(""));
    queue.arguments.emplace_back("x-dead-letter-routing-key", RmqValue::String(settings.names.deadLetterQueue));
    if (settings.queueType == "quorum")
    {
        queue.arguments.emplace_back("x-delivery-limit", RmqValue::Integer(DELIVERY_LIMIT));
    }
    return queue;
}

QueueSpec CopiesQueue(const BrokerSettings& settings, const std::string& name)
{
    return name == settings.names.deadLetterQueue ? PlainQueue(settings, name, 0)
                                                  : SingleConsumerQueue(settings, name, 0);
}

QueueSpec SingleConsumerQueue(const BrokerSettings& settings, const std::string& name, std::uint16_t prefetch)
{
    QueueSpec queue = PlainQueue(settings, name, prefetch);
    // Of two agents on one queue by mistake, or during a move, only one is served.
    queue.arguments.emplace_back("x-single-active-consumer", RmqValue::Boolean(true));
    return queue;
}

QueueSpec PlainQueue(const BrokerSettings& settings, const std::string& name, std::uint16_t prefetch)
{
    QueueSpec queue;
    queue.name = name;
    queue.prefetch = prefetch;
    queue.arguments = {{"x-queue-type", RmqValue::String(settings.queueType)}};
    return queue;
}

} // namespace VtxQel

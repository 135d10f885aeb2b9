#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace VtxQel
{

/** A message, as far as its way depends on it. */
struct ExplainQuery
{
    std::string routingKey;
    /** Only the copy that comes from this queue; every copy when empty. */
    std::string queue;
    /** The AMQP properties. */
    std::string type;
    std::string appId;
};

/** A binding that brings the message to a queue. */
struct ExplainedBinding
{
    std::string topic;
    /** intended, in_force, leaving */
    std::string state;
    std::vector<std::string> applications;
};

/** An application that takes the message, and how it stands. */
struct ExplainedReceiver
{
    std::string application;
    /** parked, draining, switching, live */
    std::string flow;
    std::size_t instances = 0;
    std::string why;
};

/** One copy of the message: every queue that it gets into has one. */
struct ExplainedCopy
{
    std::string queue;
    /** Those of the exchange; none when it comes to the queue by the queue's name only. */
    std::vector<ExplainedBinding> bindings;
    /** The routing key is the queue's name, which the default exchange goes by. */
    bool named = false;
    /** The entry of the routing registry that serves it: its key, and topic, queue or own. */
    std::string routeKey;
    std::string routeKind;
    /** applications, agent, other_copy, waits, dead_letters */
    std::string goesTo;
    std::vector<ExplainedReceiver> receivers;
    /** For people, unless receivers say it. */
    std::string why;
};

/** What becomes of a message that is published with a routing key, as the agent stands at this moment. */
struct RouteExplanation
{
    std::string exchange;
    std::vector<ExplainedCopy> copies;
    /** Why there are no copies. */
    std::string why;
};

} // namespace VtxQel

#pragma once

#include "common/MsgHandler.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>

namespace VtxQel
{

/** The channel that a route's messages come through. */
enum channelPriority_e : std::int32_t
{
    channelPriorityNormal = 0,
    channelPriorityHigh = 1
};

/**
 * What the routing registry knows about one routing key. A plain value, not changed once it is in the registry; made
 * with boost::make_shared and held as boost::shared_ptr. Shares its handler with whoever else serves with it.
 */
class RoutingRegistryEntry
{
  public:
    /** Values of `routeType`: a queue is cancelled on clean-up, a topic unbound, anything else only removed. */
    static constexpr std::int32_t queueRoute = 1;
    static constexpr std::int32_t topicRoute = 2;

    /** A topic route. */
    RoutingRegistryEntry(boost::shared_ptr<MsgHandler> servedBy, channelPriority_e channel);
    RoutingRegistryEntry(boost::shared_ptr<MsgHandler> servedBy, int kind, channelPriority_e channel);

    boost::shared_ptr<MsgHandler> handler;
    std::int32_t routeType;
    channelPriority_e priority;
};

} // namespace VtxQel

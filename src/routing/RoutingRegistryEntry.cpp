#include "routing/RoutingRegistryEntry.h"

namespace VtxQel
{

RoutingRegistryEntry::RoutingRegistryEntry(boost::shared_ptr<MsgHandler> servedBy, channelPriority_e channel)
    : handler(servedBy), routeType(topicRoute), priority(channel)
{
}

RoutingRegistryEntry::RoutingRegistryEntry(boost::shared_ptr<MsgHandler> servedBy, int kind, channelPriority_e channel)
    : handler(servedBy), routeType(kind), priority(channel)
{
}

} // namespace VtxQel

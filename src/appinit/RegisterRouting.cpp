#include "common/QelException.h"
#include "common/SFormat.h"
#include "handler/QelMsgHandler.h"

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

namespace VtxQel
{
namespace
{

// Records the key with the application and yields the handler that serves the client queue, and so the key.
boost::shared_ptr<MsgHandler> RecordKey(
    AppRegistry& appRegistry, RoutingRegistry& routingRegistry, const std::string& appName, const std::string& key,
    const std::string& clientQueue)
{
    const auto application = boost::dynamic_pointer_cast<AppRegistryEntry>(appRegistry.Lookup(appName));
    if (!application)
    {
        throw RmqMessageException(SFormat("Unable to located app: %s for app init", appName.c_str()));
    }
    // Before anything else can fail: the broker has the key already, and clean-up goes by what is recorded.
    application->AddTopic(key);
    const boost::shared_ptr<RoutingRegistryEntry> queueEntry = routingRegistry.Find(clientQueue);
    if (!queueEntry)
    {
        throw RmqException(SFormat("Missing client queue handler for %s", clientQueue.c_str()));
    }
    return queueEntry->handler;
}

} // namespace

bool QelMsgHandler::RegisterRoutingTopic(
    boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
    const std::string& appName, const std::string& topic, const std::string& clientQueue, channelPriority_e priority)
{
    const auto handler = RecordKey(*appRegistry, *routingRegistry, appName, topic, clientQueue);
    routingRegistry->Add(topic, boost::make_shared<RoutingRegistryEntry>(handler, priority));
    return true;
}

bool QelMsgHandler::RegisterRoutingQueue(
    boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
    const std::string& appName, const std::string& queueName, const std::string& clientQueue,
    channelPriority_e /*priority*/)
{
    // Queues have one priority, whatever the caller asks for: they are consumed directly, on no channel of their own.
    const auto handler = RecordKey(*appRegistry, *routingRegistry, appName, queueName, clientQueue);
    routingRegistry->Add(
        queueName,
        boost::make_shared<RoutingRegistryEntry>(handler, RoutingRegistryEntry::queueRoute, channelPriorityNormal));
    return true;
}

} // namespace VtxQel

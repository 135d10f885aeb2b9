#include "common/QelException.h"
#include "common/SFormat.h"
#include "handler/QelMsgHandler.h"
#include "logging/Log.h"

#include <boost/pointer_cast.hpp>

#include <cstdlib>
#include <vector>

namespace VtxQel
{
namespace
{

// The queues that topics are bound to, and the exchange: the same three that registration gets.
struct BrokerNames
{
    const std::string& clientQueue;
    const std::string& priorityQueue;
    const std::string& exchange;

    const std::string& QueueOf(const RoutingRegistryEntry& entry) const
    {
        return entry.priority == channelPriorityNormal ? clientQueue : priorityQueue;
    }
};

// A binding that the broker refuses to drop leaves its state unknown: a fresh start is the only way to a known one.
[[noreturn]] void Restart(const std::string& key, const std::string& queue)
{
    QEL_LOG(vtx::LevelWarning, "Restarting the QEL due to unbind error:: ");
    QEL_LOG(vtx::LevelWarning, "Unable to unbind topic (%s) from client queue (%s)", key.c_str(), queue.c_str());
    std::exit(0);
}

void TakeOffTheBroker(
    RmqClient& rmqClient, const std::string& key, const RoutingRegistryEntry& entry, const BrokerNames& names)
{
    if (entry.routeType == RoutingRegistryEntry::topicRoute)
    {
        if (!rmqClient.UnbindTopic(names.QueueOf(entry), names.exchange, key))
        {
            Restart(key, names.QueueOf(entry));
        }
    }
    else if (entry.routeType == RoutingRegistryEntry::queueRoute)
    {
        if (!rmqClient.CancelQueue(key))
        {
            throw RmqConnectionException(SFormat("Unable to cancel queue %s", key.c_str()));
        }
    }
}

} // namespace

bool QelMsgHandler::CleanTopicFromApp(
    const std::string& appName, boost::shared_ptr<AppRegistry> appRegistry,
    boost::shared_ptr<RoutingRegistry> routingRegistry, boost::shared_ptr<RmqClient> rmqClient,
    const std::string& clientQueue, const std::string& priorityQueue, const std::string& exchange)
{
    const auto application = boost::dynamic_pointer_cast<AppRegistryEntry>(appRegistry->Lookup(appName));
    if (!application)
    {
        QEL_LOG_ERROR("errorCode:QEL106", "Non register app %s", appName.c_str());
        return false;
    }
    // Forgotten before the first broker call: whatever happens from here on, nothing is unbound a second time.
    const std::vector<std::string> keys = application->GetTopics();
    application->ClearTopics();
    const BrokerNames names{clientQueue, priorityQueue, exchange};
    try
    {
        for (const std::string& key : keys)
        {
            const boost::shared_ptr<RoutingRegistryEntry> entry = routingRegistry->Find(key);
            if (!entry)
            {
                continue;
            }
            // The broker first: a key leaves the registry only when no message can arrive under it any more.
            TakeOffTheBroker(*rmqClient, key, *entry, names);
            if (!routingRegistry->Remove(key))
            {
                throw RmqException(SFormat("Unable to remove topic (%s) from registry", key.c_str()));
            }
        }
    }
    catch (const RmqException& error)
    {
        QEL_LOG_ERROR("errorCode:QEL101", "Error Unbinding topics: %s", error.what());
        return false;
    }
    return true;
}

} // namespace VtxQel

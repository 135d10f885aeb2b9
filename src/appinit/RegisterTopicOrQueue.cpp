#include "common/QelException.h"
#include "common/SFormat.h"
#include "handler/QelMsgHandler.h"
#include "logging/Log.h"

#include <cstdint>

namespace VtxQel
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;

void QelMsgHandler::RegisterTopicOrQueue(
    const std::string& appName, const AppInitConfigMsg& config, boost::shared_ptr<AppRegistry> appRegistry,
    boost::shared_ptr<RoutingRegistry> routingRegistry, boost::shared_ptr<RmqClient> rmqClient,
    const std::string& clientQueue, const std::string& priorityQueue, const std::string& exchange)
{
    // Per entry the broker first, the registry second: there is never a route for what the broker does not have.
    for (int i = 0; i < config.topic_info_size(); ++i)
    {
        // A copy: what an override does to the configuration meanwhile does not reach the entry at work.
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
        const AppInitConfigMsg::TopicInfo info = config.topic_info(i);
        const std::string& topic = info.topic();
        const std::uint32_t priority = info.priority();
        const std::string& queue = priority == 0 ? clientQueue : priorityQueue;
        QEL_LOG(
            vtx::LevelNotice, "AppInitConfig for (TOPIC). appName:%s, topic:%s (%u), (queue:%s, ex:%s)",
            appName.c_str(), topic.c_str(), priority, queue.c_str(), exchange.c_str());
        if (!rmqClient->BindTopic(queue, exchange, topic))
        {
            throw RmqMessageException(SFormat(
                "Bind fail on app: %s for topic: %s to queue %s", appName.c_str(), topic.c_str(), queue.c_str()));
        }
        const channelPriority_e channel = priority == 0 ? channelPriorityNormal : channelPriorityHigh;
        if (!RegisterRoutingTopic(appRegistry, routingRegistry, appName, topic, queue, channel))
        {
            throw RmqMessageException(SFormat(
                "Register Topic fail on app: %s for topic %s to queue %s", appName.c_str(), topic.c_str(),
                queue.c_str()));
        }
    }
    for (int i = 0; i < config.queue_name_size(); ++i)
    {
        const std::string& queueName = config.queue_name(i);
        QEL_LOG(
            vtx::LevelNotice, "AppInitConfig for (QUEUE). appName:%s, topic:%s, (queue:%s, ex:%s)", appName.c_str(),
            queueName.c_str(), clientQueue.c_str(), exchange.c_str());
        if (!rmqClient->DeclareQueue(queueName))
        {
            throw RmqMessageException(
                SFormat("Declare queue fail on app: %s for queue: %s", appName.c_str(), queueName.c_str()));
        }
        if (!RegisterRoutingQueue(appRegistry, routingRegistry, appName, queueName, clientQueue, channelPriorityNormal))
        {
            throw RmqMessageException(
                SFormat("Register queue fail on app: %s for queue: %s", appName.c_str(), queueName.c_str()));
        }
    }
}

} // namespace VtxQel

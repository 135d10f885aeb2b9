#pragma once

#include "fakes/Answers.h"
#include "handler/QelMsgHandler.h"

#include <functional>
#include <string>

namespace VtxQel
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;

/**
 * The handler with every operation overridden: it notes "handler.<operation>(<strings>)", does what a test set for that
 * operation and otherwise what the real handler does. What it sees, came through the virtual table.
 */
class ScriptedHandler : public QelMsgHandler
{
  public:
    ScriptedHandler(
        Fakes::Journal& journal, boost::weak_ptr<RoutingRegistry> routingRegistry,
        boost::weak_ptr<AppRegistry> appRegistry, boost::weak_ptr<AppDispatcher> appDispatcher,
        boost::weak_ptr<RmqClient> rmqClient, boost::weak_ptr<RmqInfo> rmqInfo,
        boost::weak_ptr<EndpointController> endpointController)
        : QelMsgHandler(routingRegistry, appRegistry, appDispatcher, rmqClient, rmqInfo, endpointController),
          m_journal(journal)
    {
    }

    void RegisterTopicOrQueue(
        const std::string& appName, const AppInitConfigMsg& config, boost::shared_ptr<AppRegistry> appRegistry,
        boost::shared_ptr<RoutingRegistry> routingRegistry, boost::shared_ptr<RmqClient> rmqClient,
        const std::string& clientQueue, const std::string& priorityQueue, const std::string& exchange) override
    {
        Note("RegisterTopicOrQueue", {appName, clientQueue, priorityQueue, exchange});
        if (onRegister)
        {
            onRegister(config);
            return;
        }
        QelMsgHandler::RegisterTopicOrQueue(
            appName, config, appRegistry, routingRegistry, rmqClient, clientQueue, priorityQueue, exchange);
    }

    bool CleanTopicFromApp(
        const std::string& appName, boost::shared_ptr<AppRegistry> appRegistry,
        boost::shared_ptr<RoutingRegistry> routingRegistry, boost::shared_ptr<RmqClient> rmqClient,
        const std::string& clientQueue, const std::string& priorityQueue, const std::string& exchange) override
    {
        Note("CleanTopicFromApp", {appName, clientQueue, priorityQueue, exchange});
        return onClean ? onClean()
                       : QelMsgHandler::CleanTopicFromApp(
                             appName, appRegistry, routingRegistry, rmqClient, clientQueue, priorityQueue, exchange);
    }

    bool HandleSyncResponse(boost::shared_ptr<RmqMessage> msg) override
    {
        Note("HandleSyncResponse", {});
        lastUseCount = msg.use_count();
        return onSyncResponse ? onSyncResponse() : QelMsgHandler::HandleSyncResponse(msg);
    }

    bool RegisterRoutingTopic(
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        const std::string& appName, const std::string& topic, const std::string& clientQueue,
        channelPriority_e priority) override
    {
        Note("RegisterRoutingTopic", {appName, topic, clientQueue, std::to_string(priority)});
        return onRoutingTopic ? onRoutingTopic()
                              : QelMsgHandler::RegisterRoutingTopic(
                                    appRegistry, routingRegistry, appName, topic, clientQueue, priority);
    }

    bool RegisterRoutingQueue(
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        const std::string& appName, const std::string& queueName, const std::string& clientQueue,
        channelPriority_e priority) override
    {
        Note("RegisterRoutingQueue", {appName, queueName, clientQueue, std::to_string(priority)});
        return onRoutingQueue ? onRoutingQueue()
                              : QelMsgHandler::RegisterRoutingQueue(
                                    appRegistry, routingRegistry, appName, queueName, clientQueue, priority);
    }

    int ParseAppInitConfig(boost::shared_ptr<RmqMessage> msg, AppInitConfigMsg& config) override
    {
        Note("ParseAppInitConfig", {});
        lastUseCount = msg.use_count();
        return onParse ? onParse(config) : QelMsgHandler::ParseAppInitConfig(msg, config);
    }

    bool PingFromMPCallback(boost::shared_ptr<RmqMessage> msg) override
    {
        Note("PingFromMPCallback", {});
        lastUseCount = msg.use_count();
        return onPing ? onPing() : QelMsgHandler::PingFromMPCallback(msg);
    }

    bool ReassignHintCallback(boost::shared_ptr<RmqMessage> msg) override
    {
        Note("ReassignHintCallback", {});
        lastUseCount = msg.use_count();
        return onHint ? onHint() : QelMsgHandler::ReassignHintCallback(msg);
    }

    std::function<void(const AppInitConfigMsg&)> onRegister;
    std::function<bool()> onClean, onSyncResponse, onRoutingTopic, onRoutingQueue, onPing, onHint;
    std::function<int(AppInitConfigMsg&)> onParse;
    /** How many references to the message there were when it was last passed on. */
    long lastUseCount = 0;

  private:
    void Note(const std::string& operation, const Fakes::Strings& arguments)
    {
        std::string list;
        for (const std::string& argument : arguments)
        {
            list += (list.empty() ? "" : ", ") + argument;
        }
        m_journal.Note("handler." + operation + "(" + list + ")");
    }

    Fakes::Journal& m_journal;
};

} // namespace VtxQel

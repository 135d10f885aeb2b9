#pragma once

#include "appinit/AppInitConfigMsg.pb.h"
#include "common/AppDispatcher.h"
#include "common/AppRegistry.h"
#include "common/EndpointController.h"
#include "common/MsgHandler.h"
#include "common/RmqClient.h"
#include "common/RmqInfo.h"
#include "common/RmqMessage.h"
#include "routing/RoutingRegistry.h"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <string>

namespace VtxQel
{

/**
 * The handler of the messages that reach the agent.
 *
 * It carries out the management plane's control messages (ping, reassign hint, application init configuration) and
 * hands everything else to the dispatcher. It owns nothing and has no mutable state: it holds its six collaborators
 * weakly, locks one for the operation that needs it, and throws QelScopeException with the class's type name when that
 * one is gone. It may be called from several threads at once.
 *
 * The operations call one another through the virtual table, so a subclass can replace any step. The registration
 * operations are defined in appinit/, the clean-up in routing/.
 */
class QelMsgHandler : public MsgHandler
{
  public:
    /** Nothing is locked or checked: a reference that is empty fails when it is needed. */
    QelMsgHandler(
        boost::weak_ptr<RoutingRegistry> routingRegistry, boost::weak_ptr<AppRegistry> appRegistry,
        boost::weak_ptr<AppDispatcher> appDispatcher, boost::weak_ptr<RmqClient> rmqClient,
        boost::weak_ptr<RmqInfo> rmqInfo, boost::weak_ptr<EndpointController> endpointController);
    ~QelMsgHandler() override;
    QelMsgHandler(const QelMsgHandler&) = delete;
    QelMsgHandler& operator=(const QelMsgHandler&) = delete;

    /**
     * Handles one message by its type. An empty message and an RmqMessageException are logged and refused (false);
     * every other exception passes through.
     */
    bool Callback(boost::shared_ptr<RmqMessage> msg) override;

    /**
     * Binds the configuration's topics, declares its queues and adds a route for each, in order. The first failure ends
     * it with an exception and undoes nothing. @throws RmqMessageException, RmqException
     */
    virtual void RegisterTopicOrQueue(
        const std::string& appName, const brelix::vtx::messaging::appinit::AppInitConfigMsg& config,
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        boost::shared_ptr<RmqClient> rmqClient, const std::string& clientQueue, const std::string& priorityQueue,
        const std::string& exchange);

    /**
     * Takes everything recorded for the application off the broker and out of the routing registry.
     * @return false when the application is unknown or a broker exception (logged) ended it half-way. A refused unbind
     * ends the process with status 0.
     */
    virtual bool CleanTopicFromApp(
        const std::string& appName, boost::shared_ptr<AppRegistry> appRegistry,
        boost::shared_ptr<RoutingRegistry> routingRegistry, boost::shared_ptr<RmqClient> rmqClient,
        const std::string& clientQueue, const std::string& priorityQueue, const std::string& exchange);

    /**
     * Replaces an application's topics and queues by those of the configuration in the message. A registration that
     * fails is cleaned up and its exception passed on. @return false (logged) when nothing was registered.
     */
    virtual bool HandleSyncResponse(boost::shared_ptr<RmqMessage> msg);

    /**
     * Records the topic with the application and routes it to the client queue's handler.
     * @return true; an override may refuse with false. @throws RmqMessageException for an unknown application,
     * RmqException when the client queue has no route; the topic is recorded even then.
     */
    virtual bool RegisterRoutingTopic(
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        const std::string& appName, const std::string& topic, const std::string& clientQueue,
        channelPriority_e priority);

    /** The same for a queue; its route always has the normal priority, whatever `priority` says. */
    virtual bool RegisterRoutingQueue(
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        const std::string& appName, const std::string& queueName, const std::string& clientQueue,
        channelPriority_e priority);

    /** Decodes the message's body. @return 0, or -1021 (logged) when the body is no configuration. */
    virtual int ParseAppInitConfig(
        boost::shared_ptr<RmqMessage> msg, brelix::vtx::messaging::appinit::AppInitConfigMsg& config);

    /** Answers a ping to its reply-to queue. @return whether the reply was sent. */
    virtual bool PingFromMPCallback(boost::shared_ptr<RmqMessage> msg);

    /** Asks the current front end to reassign; the message is not read. @return true. */
    virtual bool ReassignHintCallback(boost::shared_ptr<RmqMessage> msg);

  private:
    boost::weak_ptr<RoutingRegistry> m_routingRegistry;
    boost::weak_ptr<AppRegistry> m_appRegistry;
    boost::weak_ptr<AppDispatcher> m_appDispatcher;
    boost::weak_ptr<RmqClient> m_rmqClient;
    boost::weak_ptr<RmqInfo> m_rmqInfo;
    boost::weak_ptr<EndpointController> m_endpointController;
};

} // namespace VtxQel

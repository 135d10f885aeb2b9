#include "handler/QelMsgHandler.h"

#include "common/LockOrThrow.h"
#include "common/MessageTypes.h"
#include "common/QelException.h"
#include "logging/Log.h"

namespace VtxQel
{
namespace
{

// What a hint asks the front end for; the hint itself carries nothing.
constexpr int reassignCode = 6;
constexpr int reassignValue = 180;

} // namespace

QelMsgHandler::QelMsgHandler(
    boost::weak_ptr<RoutingRegistry> routingRegistry, boost::weak_ptr<AppRegistry> appRegistry,
    boost::weak_ptr<AppDispatcher> appDispatcher, boost::weak_ptr<RmqClient> rmqClient,
    boost::weak_ptr<RmqInfo> rmqInfo, boost::weak_ptr<EndpointController> endpointController)
    : m_routingRegistry(routingRegistry), m_appRegistry(appRegistry), m_appDispatcher(appDispatcher),
      m_rmqClient(rmqClient), m_rmqInfo(rmqInfo), m_endpointController(endpointController)
{
}

QelMsgHandler::~QelMsgHandler() = default;

bool QelMsgHandler::Callback(boost::shared_ptr<RmqMessage> msg)
{
    if (!msg)
    {
        QEL_LOG_ERROR("errorCode:QEL106", "null rmq message in qel message handler");
        return false;
    }
    try
    {
        const std::string type = msg->GetProperties()->type;
        QEL_LOG(
            vtx::LevelNotice, "Msg Received in client queue for %s. message type: %s\n", msg->GetAppName().c_str(),
            type.c_str());
        // For every message, also those that do not need it: without a dispatcher the agent is not able to work.
        const boost::shared_ptr<AppDispatcher> dispatcher = LockOrThrow(m_appDispatcher);
        if (type == PING_REQUEST_TYPE)
        {
            return PingFromMPCallback(msg);
        }
        if (type == REASSIGN_HINT_TYPE)
        {
            return ReassignHintCallback(msg);
        }
        if (type == APP_INIT_CONFIG_TYPE)
        {
            if (!HandleSyncResponse(msg))
            {
                return false;
            }
            return dispatcher->Dispatch(msg);
        }
        QEL_LOG(vtx::LevelDetail, "Default dispatch for incoming rmq message %s", msg->ToString().c_str());
        return dispatcher->Dispatch(msg);
    }
    catch (const RmqMessageException& error)
    {
        QEL_LOG_ERROR("errorCode:QEL106", "Bad RmqMessage. %s", error.what());
        return false;
    }
}

bool QelMsgHandler::HandleSyncResponse(boost::shared_ptr<RmqMessage> msg)
{
    const boost::shared_ptr<RmqInfo> rmqInfo = LockOrThrow(m_rmqInfo);
    const boost::shared_ptr<RmqClient> rmqClient = LockOrThrow(m_rmqClient);
    const boost::shared_ptr<RoutingRegistry> routingRegistry = LockOrThrow(m_routingRegistry);
    const boost::shared_ptr<AppRegistry> appRegistry = LockOrThrow(m_appRegistry);
    if (!msg)
    {
        throw RmqMessageException("null rmq message");
    }
    // Copied once, so that every step below works with the same names. NOLINTBEGIN(performance-*)
    const std::string appName = msg->GetAppName();
    const std::string clientQueue = rmqInfo->clientQueue;
    const std::string priorityQueue = rmqInfo->priorityQueue;
    const std::string exchange = rmqInfo->exchange;
    // NOLINTEND(performance-*)

    brelix::vtx::messaging::appinit::AppInitConfigMsg config;
    if (ParseAppInitConfig(msg, config) != 0)
    {
        QEL_LOG_ERROR("errorCode:QEL15", "Bad parse for AppInit msg");
        return false;
    }
    if (!CleanTopicFromApp(appName, appRegistry, routingRegistry, rmqClient, clientQueue, priorityQueue, exchange))
    {
        QEL_LOG_ERROR("errorCode:QEL15", "unable to unbind topics in AppInitConfig from app (%s)", appName.c_str());
        return false;
    }
    try
    {
        RegisterTopicOrQueue(
            appName, config, appRegistry, routingRegistry, rmqClient, clientQueue, priorityQueue, exchange);
        return true;
    }
    catch (...)
    {
        if (!CleanTopicFromApp(appName, appRegistry, routingRegistry, rmqClient, clientQueue, priorityQueue, exchange))
        {
            QEL_LOG_ERROR("errorCode:QEL15", "unable to unbind topics for app during cleanup (%s)", appName.c_str());
        }
        throw;
    }
}

bool QelMsgHandler::PingFromMPCallback(boost::shared_ptr<RmqMessage> msg)
{
    // The broker's default exchange, which delivers to the queue that the routing key names.
    const std::string exchange;
    const boost::shared_ptr<RmqClient> rmqClient = LockOrThrow(m_rmqClient);
    const boost::shared_ptr<RmqProperties> forReplyTo = msg->GetProperties();
    const boost::shared_ptr<RmqProperties> forCorrelationId = msg->GetProperties();
    return rmqClient->SendPingReply(exchange, forReplyTo->replyTo, forCorrelationId->correlationId);
}

bool QelMsgHandler::ReassignHintCallback(boost::shared_ptr<RmqMessage> /*msg*/)
{
    const boost::shared_ptr<EndpointController> endpointController = LockOrThrow(m_endpointController);
    const boost::shared_ptr<FE> frontEnd = LockOrThrow(endpointController->FE());
    frontEnd->Reassign(reassignCode, reassignValue);
    return true;
}

} // namespace VtxQel

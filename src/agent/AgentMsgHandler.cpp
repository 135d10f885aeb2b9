#include "agent/AgentMsgHandler.h"

#include "agent/ConfigurationHash.h"
#include "agent/ConfigurationSize.h"
#include "common/LockOrThrow.h"
#include "logging/Log.h"

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include <exception>
#include <map>
#include <utility>

namespace VtxQel
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;

namespace
{

/** The routes of a configuration, in its order; of a topic that is listed twice the last queue counts. */
std::vector<RouteRecord> RoutesOf(const std::string& application, const AppInitConfigMsg& config, const RmqInfo& info)
{
    std::map<std::string, std::string> queueOfTopic;
    for (const auto& topic : config.topic_info())
    {
        queueOfTopic[topic.topic()] = topic.priority() == 0 ? info.clientQueue : info.priorityQueue;
    }
    std::vector<RouteRecord> routes;
    routes.reserve(queueOfTopic.size() + static_cast<std::size_t>(config.queue_name_size()));
    for (const auto& topic : config.topic_info())
    {
        if (const auto known = queueOfTopic.extract(topic.topic()))
        {
            routes.push_back({application, RouteKind::topic, known.key(), known.mapped(), RouteState::intended});
        }
    }
    for (const std::string& queue : config.queue_name())
    {
        routes.push_back({application, RouteKind::queue, queue, "", RouteState::intended});
    }
    return routes;
}

} // namespace

AgentMsgHandler::AgentMsgHandler(
    const HandlerCollaborators& collaborators, const ConfigurationKeepers& keepers, ConfigurationEvents events)
    : QelMsgHandler(
          collaborators.routingRegistry, collaborators.appRegistry, collaborators.appDispatcher,
          collaborators.rmqClient, collaborators.rmqInfo, collaborators.endpointController),
      m_collaborators(collaborators), m_topology(keepers.topology), m_subscriptions(keepers.subscriptions),
      m_log(keepers.log), m_events(std::move(events))
{
}

bool AgentMsgHandler::HandleSyncResponse(boost::shared_ptr<RmqMessage> msg)
{
    const std::lock_guard turn(m_turn);
    const ConfigurationRun run = BeginRun(msg.get());
    try
    {
        const bool done = QelMsgHandler::HandleSyncResponse(msg);
        const char* const error = m_frame                    ? "its earlier topics could not be removed"
                                  : IsKnown(run.application) ? "the body is no configuration"
                                                             : "there is no such application";
        End(run, done, error);
        return done;
    }
    catch (const std::exception& error)
    {
        End(run, false, error.what());
        throw;
    }
    catch (...)
    {
        End(run, false, "an exception of an unknown kind");
        throw;
    }
}

int AgentMsgHandler::ParseAppInitConfig(boost::shared_ptr<RmqMessage> msg, AppInitConfigMsg& config)
{
    CheckConfigurationSize(msg->GetBody()->bytes, msg->GetBodyLength());
    const int result = QelMsgHandler::ParseAppInitConfig(msg, config);
    const std::string& application = msg->GetAppName();
    const boost::shared_ptr<AppRegistryEntry> entry = EntryOf(application);
    if (result != 0 || !entry)
    {
        return result;
    }
    Frame frame{
        application,
        {entry->GetTopics().begin(), entry->GetTopics().end()},
        RoutesOf(application, config, *LockOrThrow(m_collaborators.rmqInfo))};
    for (const RouteRecord& route : frame.wanted)
    {
        frame.keys.insert(route.name);
    }
    m_topology.Begin(application, frame.wanted);
    m_subscriptions.BeginConfiguration(application);
    m_frame = std::move(frame);
    return result;
}

void AgentMsgHandler::RegisterTopicOrQueue(
    const std::string& appName, const AppInitConfigMsg& config, boost::shared_ptr<AppRegistry> appRegistry,
    boost::shared_ptr<RoutingRegistry> routingRegistry, boost::shared_ptr<RmqClient> rmqClient,
    const std::string& clientQueue, const std::string& priorityQueue, const std::string& exchange)
{
    try
    {
        QelMsgHandler::RegisterTopicOrQueue(
            appName, config, appRegistry, routingRegistry, rmqClient, clientQueue, priorityQueue, exchange);
    }
    catch (...)
    {
        // What follows is the clean-up: the topics that were kept have to go as well.
        m_topology.Withdraw();
        throw;
    }
}

bool AgentMsgHandler::RegisterRoutingTopic(
    boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
    const std::string& appName, const std::string& topic, const std::string& clientQueue, channelPriority_e priority)
{
    const bool done =
        QelMsgHandler::RegisterRoutingTopic(appRegistry, routingRegistry, appName, topic, clientQueue, priority);
    m_subscriptions.AddTopic(appName, topic, clientQueue);
    return done;
}

bool AgentMsgHandler::RegisterRoutingQueue(
    boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
    const std::string& appName, const std::string& queue, const std::string& clientQueue, channelPriority_e priority)
{
    const bool done =
        QelMsgHandler::RegisterRoutingQueue(appRegistry, routingRegistry, appName, queue, clientQueue, priority);
    m_subscriptions.AddQueue(appName, queue);
    return done;
}

void AgentMsgHandler::Restore(const std::vector<RouteRecord>& routes)
{
    const boost::shared_ptr<RoutingRegistry> registry = LockOrThrow(m_collaborators.routingRegistry);
    std::map<std::string, std::vector<RouteRecord>> applications;
    for (const RouteRecord& route : routes)
    {
        if (!applications.contains(route.application))
        {
            m_subscriptions.BeginConfiguration(route.application);
        }
        applications[route.application].push_back(route);
        EntryOf(route.application)->AddTopic(route.name);
        AddRoute(*registry, route);
        if (route.kind == RouteKind::topic)
        {
            m_subscriptions.AddTopic(route.application, route.name, route.queue);
        }
        else
        {
            m_subscriptions.AddQueue(route.application, route.name);
        }
    }
    for (const auto& [application, had] : applications)
    {
        m_subscriptions.Commit(application);
        m_log.Restored(application, had);
    }
}

void AgentMsgHandler::Forget(const std::string& application)
{
    const std::lock_guard turn(m_turn);
    m_topology.Begin(application, {});
    const ConfigurationStatus had = m_subscriptions.Status(application);
    std::set<std::string> keys(had.topics.begin(), had.topics.end());
    keys.insert(had.queues.begin(), had.queues.end());
    m_topology.End();
    m_subscriptions.Forget(application);
    m_log.Forget(application);
    AlignRegistry(keys);
}

ConfigurationRun AgentMsgHandler::BeginRun(const RmqMessage* message) const
{
    if (message == nullptr)
    {
        return {};
    }
    const std::string& application = message->GetAppName();
    return m_log.Begin(application, ConfigurationHash(*message->GetBody()), IsKnown(application));
}

void AgentMsgHandler::End(const ConfigurationRun& run, bool succeeded, const std::string& error)
{
    const std::optional<Frame> frame = std::exchange(m_frame, std::nullopt);
    if (frame)
    {
        Close(*frame, succeeded, error);
    }
    if (m_topology.IsFrozen())
    {
        return;
    }
    if (succeeded && frame)
    {
        m_log.Applied(run, frame->wanted);
    }
    else
    {
        m_log.Failed(run, error, IsKnown(run.application), frame.has_value());
    }
}

void AgentMsgHandler::Close(const Frame& frame, bool succeeded, const std::string& error)
{
    if (!succeeded)
    {
        m_topology.Withdraw();
    }
    const bool clean = m_topology.End();
    if (m_topology.IsFrozen())
    {
        // The process is stopping: the broker keeps the configuration for the next one, which finds things as they are.
        return;
    }
    if (!clean)
    {
        m_events.orphaned();
    }
    AlignRegistry(frame.keys);
    if (succeeded)
    {
        m_subscriptions.Commit(frame.application);
        return;
    }
    m_subscriptions.Abort(frame.application, error);
    m_events.failed(frame.application);
}

void AgentMsgHandler::AlignRegistry(const std::set<std::string>& keys)
{
    const boost::shared_ptr<RoutingRegistry> registry = LockOrThrow(m_collaborators.routingRegistry);
    const std::vector<std::string> queueList = m_topology.Queues();
    const std::set<std::string> queues(queueList.begin(), queueList.end());
    for (const std::string& key : keys)
    {
        const std::optional<std::string> queue = m_topology.QueueOf(key);
        const bool present = registry->Find(key) != nullptr;
        if (queue && !present)
        {
            // Another application's: it shared the key with the one whose configuration changed.
            AddRoute(*registry, {"", RouteKind::topic, key, *queue, RouteState::inForce});
        }
        else if (!queue && present && !queues.contains(key) && !m_topology.IsReserved(key))
        {
            registry->Remove(key);
        }
    }
}

bool AgentMsgHandler::IsKnown(const std::string& application) const
{
    const boost::shared_ptr<AppRegistry> registry = m_collaborators.appRegistry.lock();
    return registry && registry->Lookup(application);
}

boost::shared_ptr<AppRegistryEntry> AgentMsgHandler::EntryOf(const std::string& application) const
{
    return boost::dynamic_pointer_cast<AppRegistryEntry>(LockOrThrow(m_collaborators.appRegistry)->Lookup(application));
}

void AgentMsgHandler::AddRoute(RoutingRegistry& registry, const RouteRecord& route) const
{
    const boost::shared_ptr<RmqInfo> info = LockOrThrow(m_collaborators.rmqInfo);
    const bool topic = route.kind == RouteKind::topic;
    const std::string& servedBy = topic ? route.queue : info->clientQueue;
    const boost::shared_ptr<RoutingRegistryEntry> own = registry.Find(servedBy);
    if (!own)
    {
        QEL_LOG(vtx::LevelWarning, "queue %s has no handler; no route for %s", servedBy.c_str(), route.name.c_str());
        return;
    }
    const auto priority = static_cast<channelPriority_e>(topic && route.queue == info->priorityQueue ? 1 : 0);
    registry.Add(
        route.name, boost::make_shared<RoutingRegistryEntry>(own->handler, static_cast<int>(route.kind), priority));
}

} // namespace VtxQel

#pragma once

#include "agent/ConfigurationLog.h"
#include "apps/Subscriptions.h"
#include "broker/Journal.h"
#include "broker/Topology.h"
#include "handler/QelMsgHandler.h"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace VtxQel
{

/** The objects that the handler works with; others own them. */
struct HandlerCollaborators
{
    boost::weak_ptr<RoutingRegistry> routingRegistry;
    boost::weak_ptr<AppRegistry> appRegistry;
    boost::weak_ptr<AppDispatcher> appDispatcher;
    boost::weak_ptr<RmqClient> rmqClient;
    boost::weak_ptr<RmqInfo> rmqInfo;
    boost::weak_ptr<EndpointController> endpointController;
};

/** Who keeps what configurations bring. All of them outlive the handler. */
struct ConfigurationKeepers
{
    Topology& topology;
    Subscriptions& subscriptions;
    ConfigurationLog& log;
};

/** Who is told how configurations end. Neither may block. */
struct ConfigurationEvents
{
    /** This application's could not be carried out. */
    std::function<void(const std::string& application)> failed;
    /** Something that nobody uses any more is still on the broker. */
    std::function<void()> orphaned;
};

/**
 * The agent's message handler: the handler's operations, framed by what only the agent knows.
 *
 * Around a configuration it tells the topology what the new set is, so that only differences reach the broker, and the
 * subscriptions, so that messages go on reaching the application meanwhile; at its end all of them agree with the
 * routing registry again, also about topics that other applications share. Configurations are carried out one at a
 * time.
 */
class AgentMsgHandler : public QelMsgHandler
{
  public:
    AgentMsgHandler(
        const HandlerCollaborators& collaborators, const ConfigurationKeepers& keepers, ConfigurationEvents events);

    bool HandleSyncResponse(boost::shared_ptr<RmqMessage> msg) override;
    int ParseAppInitConfig(
        boost::shared_ptr<RmqMessage> msg, brelix::vtx::messaging::appinit::AppInitConfigMsg& config) override;
    void RegisterTopicOrQueue(
        const std::string& appName, const brelix::vtx::messaging::appinit::AppInitConfigMsg& config,
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        boost::shared_ptr<RmqClient> rmqClient, const std::string& clientQueue, const std::string& priorityQueue,
        const std::string& exchange) override;
    bool RegisterRoutingTopic(
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        const std::string& appName, const std::string& topic, const std::string& clientQueue,
        channelPriority_e priority) override;
    bool RegisterRoutingQueue(
        boost::shared_ptr<AppRegistry> appRegistry, boost::shared_ptr<RoutingRegistry> routingRegistry,
        const std::string& appName, const std::string& queue, const std::string& clientQueue,
        channelPriority_e priority) override;

    /** Puts the routes of an earlier process back into registry, records and subscriptions. Before anything starts. */
    void Restore(const std::vector<RouteRecord>& routes);

    /** Takes everything of an application that is not known any more off the broker and out of the tables. */
    void Forget(const std::string& application);

  private:
    struct Frame
    {
        std::string application;
        /** What it had before and what it is to have: the keys of the routing registry that may change. */
        std::set<std::string> keys;
        std::vector<RouteRecord> wanted;
    };

    ConfigurationRun BeginRun(const RmqMessage* message) const;
    void End(const ConfigurationRun& run, bool succeeded, const std::string& error);
    void Close(const Frame& frame, bool succeeded, const std::string& error);
    void AlignRegistry(const std::set<std::string>& keys);
    bool IsKnown(const std::string& application) const;
    boost::shared_ptr<AppRegistryEntry> EntryOf(const std::string& application) const;
    void AddRoute(RoutingRegistry& registry, const RouteRecord& route) const;

    const HandlerCollaborators m_collaborators;
    Topology& m_topology;
    Subscriptions& m_subscriptions;
    ConfigurationLog& m_log;
    const ConfigurationEvents m_events;
    /** Held while a configuration is carried out; guards m_frame. */
    std::mutex m_turn;
    std::optional<Frame> m_frame;
};

} // namespace VtxQel

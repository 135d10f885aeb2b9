#pragma once

#include "admin/AdminServer.h"
#include "agent/AgentConfig.h"
#include "agent/AgentMsgHandler.h"
#include "agent/AgentReport.h"
#include "agent/BrokerParking.h"
#include "agent/ConfigurationRequests.h"
#include "agent/DirectoryLock.h"
#include "agent/MemoryTrimmer.h"
#include "agent/Watchdog.h"
#include "apps/ApplicationGateway.h"
#include "apps/ApplicationSet.h"
#include "apps/HoldBudget.h"
#include "apps/ListeningSocket.h"
#include "apps/LocalAppDispatcher.h"
#include "apps/LocalAppRegistry.h"
#include "apps/Subscriptions.h"
#include "apps/Timers.h"
#include "broker/BrokerClient.h"
#include "broker/Journal.h"
#include "common/Progress.h"
#include "common/Scheduler.h"
#include "endpoint/BrokerFrontEnd.h"
#include "routing/RoutingRegistry.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * Agent owns the agent's objects and wires them together: the only place that knows every module.
 *
 * Start, Reload and Stop are called by the main thread. Between Start and Stop the link's thread, four lanes, the
 * schedulers and the gateway's threads are at work; any of them may end the process by exit(), so nothing here is
 * static.
 */
class Agent
{
  public:
    /** @param applications the drop-ins. Opens the journal and puts the routes of an earlier process back. */
    Agent(AgentConfig config, std::vector<ApplicationSettings> applications);
    /** As Stop(). */
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    /** Opens the applications' sockets and starts connecting. @throws QelException when that cannot be. */
    void Start();
    /**
     * Takes over the log level, the applications, the password and the certificates of a configuration read again, and
     * says of every other key that has changed that it needs a restart.
     */
    void Reload(const AgentConfig& config, const std::vector<ApplicationSettings>& applications);
    /** Finishes what is in hand within 5 s and leaves the rest to the broker. Idempotent. */
    void Stop();

  private:
    void NameWhatNeedsRestart(const AgentConfig& config) const;
    void AddOwnRoutes();
    void ServeAdmin();
    void OnRestored();
    void OnDisconnected();
    void OnBlocked(bool blocked);
    void TellBrokerState();
    void RemoveOrphans(std::chrono::seconds retryAfter);
    void MoveToNextUrl();
    bool LacksConfiguration(const std::string& application) const;
    void OnSubscriptionChange(const SubscriptionChange& change);
    void WatchThreads(std::chrono::microseconds interval);
    void FeedWatchdog(std::chrono::microseconds interval);

    const AgentConfig m_config;
    DirectoryLock m_stateLock;
    DirectoryLock m_runtimeLock;
    std::set<std::string> m_applicationNames;

    /** For what is short: requests for configurations, moves. */
    Scheduler m_timers;
    /** For what waits for the broker: orphans, applications that are gone. */
    Scheduler m_chores;
    /** Whether the removal of orphans is going to be repeated: once, however often it is asked for. By the chores. */
    bool m_orphansDue = false;
    MemoryTrimmer m_memory;
    Journal m_journal;
    ConfigurationLog m_configurations;
    boost::shared_ptr<RoutingRegistry> m_routingRegistry;
    boost::shared_ptr<LocalAppRegistry> m_appRegistry;
    Subscriptions m_subscriptions;
    boost::shared_ptr<BrokerClient> m_client;
    HoldBudget m_budget;
    BrokerParking m_parking;
    SchedulerTimers m_applicationTimers;
    ApplicationSet m_applications;
    boost::shared_ptr<LocalAppDispatcher> m_dispatcher;
    ApplicationGateway m_gateway;
    ConfigurationRequests m_requests;
    boost::shared_ptr<RmqInfo> m_info;
    boost::shared_ptr<BrokerFrontEnd> m_frontEnd;
    boost::shared_ptr<EndpointController> m_endpointController;
    boost::shared_ptr<AgentMsgHandler> m_handler;
    AgentReport m_report;
    AdminServer m_admin;
    /** Owns the admin endpoint's file. */
    std::unique_ptr<ListeningSocket> m_adminSocket;
    /** Steps that the link's thread made when the watchdog asked for them. */
    Progress m_linkProgress;
    /** Used by m_timers' thread alone. */
    std::unique_ptr<Watchdog> m_watchdog;
    std::atomic<bool> m_ready{false};
    /** Used by the link's thread alone. */
    bool m_connected = false;
    bool m_blocked = false;
    bool m_started = false;
};

} // namespace VtxQel

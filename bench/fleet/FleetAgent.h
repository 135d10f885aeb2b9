#pragma once

#include "agent/AgentConfig.h"
#include "broker/BrokerClient.h"
#include "broker/Journal.h"
#include "common/EndpointController.h"
#include "common/Scheduler.h"
#include "endpoint/BrokerFrontEnd.h"
#include "handler/QelMsgHandler.h"
#include "routing/RoutingRegistry.h"

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace VtxQel
{

/** What a simulated agent has lived through; moments are those of the steady clock. */
struct FleetAgentFigures
{
    using Moment = std::chrono::steady_clock::time_point;

    /** Consuming with every binding in place. */
    bool serving = false;
    std::uint64_t restorations = 0;
    std::uint64_t disconnections = 0;
    std::optional<Moment> lastRestored;
    std::optional<Moment> lastDisconnected;
    std::uint64_t moves = 0;
    std::uint64_t failedMoves = 0;
    std::string lastError;
};

/**
 * FleetAgent is an agent as its broker sees it: the agent's own client, handler and front end, wired as Agent wires
 * them, without applications and with a journal in memory. Its topics stand in the journal from the beginning, so that
 * they are restored on each connection as those of an agent that has been configured are.
 *
 * Any thread may ask for figures. The scheduler outlives it and is stopped before it goes.
 */
class FleetAgent
{
  public:
    /** @param topics how many are bound to the client queue */
    FleetAgent(AgentConfig config, std::size_t topics, Scheduler& timers);
    ~FleetAgent();
    FleetAgent(const FleetAgent&) = delete;
    FleetAgent& operator=(const FleetAgent&) = delete;

    void Start() { m_client->Start(); }
    /** Closes the connections in order, as an agent that ends does. */
    void Stop();
    FleetAgentFigures Figures() const;

  private:
    /** There are no applications: what is no control message is refused, and ends in the dead-letter queue. */
    class NoApplications : public AppDispatcher
    {
      public:
        bool Dispatch(boost::shared_ptr<RmqMessage>) override { return false; }
    };

    void RecordTopics(std::size_t count);
    void AddOwnRoutes();
    void OnRestored();
    void OnDisconnected();
    std::string PingReply();
    void MoveToNextUrl();

    const AgentConfig m_config;
    const FleetAgentFigures::Moment m_born = std::chrono::steady_clock::now();
    Journal m_journal{":memory:"};
    boost::shared_ptr<RoutingRegistry> m_registry;
    boost::shared_ptr<NoApplications> m_dispatcher;
    boost::shared_ptr<RmqInfo> m_info;
    boost::shared_ptr<BrokerClient> m_client;
    boost::shared_ptr<BrokerFrontEnd> m_frontEnd;
    boost::shared_ptr<EndpointController> m_endpointController;
    boost::shared_ptr<QelMsgHandler> m_handler;

    mutable std::mutex m_mutex;
    /** Guarded by m_mutex. */
    FleetAgentFigures m_figures;
};

} // namespace VtxQel

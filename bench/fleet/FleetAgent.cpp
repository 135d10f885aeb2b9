#include "FleetAgent.h"

#include "agent/PingReplyBody.h"

#include <boost/make_shared.hpp>

#include <utility>
#include <vector>

namespace VtxQel
{

namespace
{

constexpr const char* APPLICATION = "fleet";
/** The route type of the agent's own queues. */
constexpr int OWN_ROUTE = 0;
/** What an agent gives to what it has in hand when it ends. */
constexpr std::chrono::milliseconds FLUSH_BUDGET{1500};

} // namespace

FleetAgent::FleetAgent(AgentConfig config, std::size_t topics, Scheduler& timers)
    : m_config(std::move(config)), m_registry(boost::make_shared<RoutingRegistry>()),
      m_dispatcher(boost::make_shared<NoApplications>()), m_info(boost::make_shared<RmqInfo>(m_config.broker.names)),
      m_client(boost::make_shared<BrokerClient>(
          m_config.broker, m_registry, m_journal,
          [](const std::string&, const std::string&, const std::string& appId) { return appId; },
          BrokerEvents{
              [this] { OnDisconnected(); }, [] {}, [this] { OnRestored(); }, [this] { return PingReply(); }, nullptr})),
      m_frontEnd(boost::make_shared<BrokerFrontEnd>([this] { MoveToNextUrl(); }, timers, m_config.reassignWithin)),
      m_endpointController(boost::make_shared<EndpointController>(m_frontEnd)),
      m_handler(boost::make_shared<QelMsgHandler>(
          m_registry, boost::weak_ptr<AppRegistry>(), m_dispatcher, m_client, m_info, m_endpointController))
{
    AddOwnRoutes();
    RecordTopics(topics);
    m_client->Routes().Restore([](const std::string&) { return true; });
}

FleetAgent::~FleetAgent()
{
    Stop();
}

void FleetAgent::Stop()
{
    m_client->StopConsuming();
    m_client->Stop(FLUSH_BUDGET);
}

FleetAgentFigures FleetAgent::Figures() const
{
    const LinkStatus link = m_client->Status();
    FleetAgentFigures figures;
    {
        const std::lock_guard lock(m_mutex);
        figures = m_figures;
    }
    figures.serving = link.restored;
    figures.moves = link.moves;
    figures.failedMoves = link.failedMoves;
    figures.lastError = link.lastMoveError.empty() ? link.lastError : link.lastMoveError;
    return figures;
}

void FleetAgent::RecordTopics(std::size_t count)
{
    std::vector<JournalChange> topics;
    for (std::size_t number = 0; number < count; ++number)
    {
        const std::string topic = "fleet." + m_config.id + "." + std::to_string(number);
        topics.push_back({{APPLICATION, RouteKind::topic, topic, m_info->clientQueue, RouteState::inForce}, false});
    }
    m_journal.Write(topics);
}

void FleetAgent::AddOwnRoutes()
{
    for (const auto& [queue, priority] : {std::pair(m_info->clientQueue, 0), std::pair(m_info->priorityQueue, 1)})
    {
        m_registry->Add(
            queue,
            boost::make_shared<RoutingRegistryEntry>(m_handler, OWN_ROUTE, static_cast<channelPriority_e>(priority)));
    }
}

void FleetAgent::OnRestored()
{
    const std::lock_guard lock(m_mutex);
    ++m_figures.restorations;
    m_figures.lastRestored = std::chrono::steady_clock::now();
}

void FleetAgent::OnDisconnected()
{
    const std::lock_guard lock(m_mutex);
    ++m_figures.disconnections;
    m_figures.lastDisconnected = std::chrono::steady_clock::now();
}

std::string FleetAgent::PingReply()
{
    PingReport report;
    report.id = m_config.id;
    report.version = QEL_VERSION;
    report.uptime = std::chrono::steady_clock::now() - m_born;
    return PingReplyBody(std::move(report));
}

void FleetAgent::MoveToNextUrl()
{
    m_client->MoveTo((m_client->Status().urlIndex + 1) % m_config.broker.link.urls.size());
}

} // namespace VtxQel

#include "agent/AgentReport.h"

#include "agent/PingReplyBody.h"
#include "agent/StateNames.h"
#include "logging/Log.h"

#include <array>
#include <utility>

namespace VtxQel
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::array<const char*, END_CAUSE_COUNT> CAUSES{"network",    "silence", "broker", "protocol",
                                                          "unanswered", "moved",   "probe"};
constexpr std::array<const char*, LANE_COUNT> LANES{"control", "configuration", "priority", "normal"};
constexpr std::array<const char*, OUTCOME_COUNT> OUTCOMES{"done", "parked", "dead", "rejected", "returned"};
constexpr std::array<const char*, DEAD_REASON_COUNT> REASONS{"application",     "no_application", "control_refused",
                                                             "handling_failed", "unreadable",     "copy_refused"};
constexpr std::array<const char*, 5> PROBE_STATES{"off", "waiting", "fresh", "behind", "failed"};

template <std::size_t Count, class Number>
Counts Named(const std::array<const char*, Count>& names, const std::array<Number, Count>& numbers)
{
    Counts counts;
    for (std::size_t index = 0; index < Count; ++index)
    {
        counts.emplace_back(names[index], numbers[index]);
    }
    return counts;
}

WallTime ToWallTime(Clock::time_point time)
{
    const auto ago = std::chrono::duration_cast<WallTime::duration>(Clock::now() - time);
    return std::chrono::system_clock::now() - ago;
}

std::vector<CertificateFigures> CertificatesOf(const CertificateExpiry& expiry)
{
    std::vector<CertificateFigures> certificates;
    for (const auto& [role, notAfter] :
         {std::pair("authority", expiry.authority), {"client", expiry.client}, {"broker", expiry.broker}})
    {
        if (notAfter != 0)
        {
            certificates.push_back({role, WallTime(std::chrono::seconds(notAfter))});
        }
    }
    return certificates;
}

} // namespace

AgentReport::AgentReport(std::string id, const BrokerSettings& broker, ReportSources sources)
    : m_id(std::move(id)), m_loopProbe(broker.loopProbe),
      m_queues{broker.names.clientQueue, broker.names.priorityQueue, broker.names.deadLetterQueue}, m_sources(sources),
      m_explainer(broker, {sources.client, sources.topology, sources.subscriptions, sources.dispatcher})
{
}

AgentStatus AgentReport::Status() const
{
    const LinkStatus link = m_sources.client.Status();
    const DeliveryStatus deliveries = m_sources.client.Deliveries();
    AgentStatus status;
    status.id = m_id;
    status.version = QEL_VERSION;
    status.startedAt = m_startedAt;
    status.uptime = Clock::now() - m_began;
    status.logLevel = static_cast<int>(vtx::Logger::logLevel);
    status.notReady = NotReady();
    status.connection = Connection(link);
    status.loopProbe = Probe();
    status.lanes = Lanes(deliveries);
    for (const auto& application : m_sources.applications.All())
    {
        status.applications.push_back(ApplicationOf(*application));
    }
    status.configurations = m_sources.configurations.Totals();
    status.routes = RouteTotals();
    status.queues = m_queues;
    status.pings = {deliveries.pingsAnswered, deliveries.pingsFailed, deliveries.pings};
    status.deadLetters = Named(REASONS, deliveries.deadLetters);
    status.refusedControlMessages = m_sources.client.RefusedControlMessages();
    status.certificates = CertificatesOf(link.certificates);
    return status;
}

std::vector<std::string> AgentReport::NotReady() const
{
    std::vector<std::string> reasons;
    if (m_stopping)
    {
        reasons.emplace_back("the agent is stopping");
    }
    const LinkStatus link = m_sources.client.Status();
    if (!link.connected)
    {
        reasons.push_back(
            "not connected to the broker" + (link.lastError.empty() ? std::string() : ": " + link.lastError));
        return reasons;
    }
    if (!link.restored)
    {
        reasons.emplace_back("queues and bindings are being restored on the broker");
    }
    if (const std::size_t refused = m_sources.client.Unrestored(); refused != 0)
    {
        reasons.push_back(std::to_string(refused) + " bindings or queues are refused by the broker");
    }
    if (const std::string probe = m_sources.client.Probe().NotReady(); link.restored && !probe.empty())
    {
        reasons.push_back(probe);
    }
    return reasons;
}

RouteRows AgentReport::Routes(const RouteQuery& query) const
{
    const RoutePage page = m_sources.topology.Find(query.search, query.offset, query.limit, query.application);
    RouteRows rows{page.total, page.matching, {}};
    for (const RouteUse& route : page.routes)
    {
        rows.rows.push_back(
            {route.kind == RouteKind::topic ? "topic" : "queue", route.name, route.queue,
             NameOf(ROUTE_STATES, route.state), route.applications});
    }
    return rows;
}

void AgentReport::SetLogLevel(int level)
{
    QEL_LOG(vtx::LevelStatus, "the log level is %d from now on", level);
    vtx::Logger::logLevel = level;
}

std::string AgentReport::PingReply() const
{
    std::vector<std::pair<std::string, ConfigurationFigures>> configurations;
    for (const auto& application : m_sources.applications.All())
    {
        configurations.emplace_back(application->Name(), ConfigurationOf(application->Name()));
    }
    return PingReplyBody({m_id, QEL_VERSION, Clock::now() - m_began, NotReady(), std::move(configurations)});
}

ConnectionFigures AgentReport::Connection(const LinkStatus& link) const
{
    ConnectionFigures figures;
    figures.state = !link.connected ? "disconnected" : !link.restored ? "restoring" : "consuming";
    figures.url = link.url;
    if (link.connected)
    {
        figures.connectedSince = ToWallTime(link.connectedAt);
        figures.age = Clock::now() - link.connectedAt;
    }
    figures.blocked = link.blocked;
    figures.readingPaused = m_sources.client.IsReadingPaused();
    figures.heldBytes = m_sources.client.HeldBytes();
    figures.unrestored = m_sources.client.Unrestored();
    figures.lastError = link.lastError;
    figures.reconnects = Named(CAUSES, link.reconnectsBy);
    figures.moves = {{"moved", link.moves}, {"failed", link.failedMoves}};
    figures.lastMoveError = link.lastMoveError;
    return figures;
}

LoopProbeFigures AgentReport::Probe() const
{
    const LoopProbeStatus probe = m_sources.client.Probe().Status();
    LoopProbeFigures figures;
    figures.state = NameOf(PROBE_STATES, probe.state);
    figures.interval = m_loopProbe.interval;
    figures.deadline = m_loopProbe.deadline;
    figures.lastReturnAt = probe.lastReturn;
    figures.lastRoundTrip = probe.lastRoundTrip;
    figures.roundTrips = probe.roundTrips;
    figures.failed = probe.failed;
    figures.failuresInARow = probe.failuresInARow;
    figures.strangers = probe.strangers;
    figures.error = probe.error;
    return figures;
}

std::vector<LaneFigures> AgentReport::Lanes(const DeliveryStatus& deliveries) const
{
    std::vector<LaneFigures> lanes;
    for (std::size_t index = 0; index < LANE_COUNT; ++index)
    {
        const LaneStatus& lane = deliveries.lanes[index];
        lanes.push_back(
            {LANES[index], lane.received, m_sources.client.Waiting(static_cast<LaneKind>(index)), lane.InFlight(),
             lane.failures, Named(OUTCOMES, lane.settled), lane.latency});
    }
    return lanes;
}

ApplicationFigures AgentReport::ApplicationOf(const Application& application) const
{
    const ApplicationSnapshot snapshot = application.Snapshot();
    ApplicationFigures figures;
    figures.name = application.Name();
    figures.flow = NameOf(FLOWS, snapshot.flow);
    figures.instances = snapshot.sessions;
    figures.window = snapshot.window;
    figures.inFlight = snapshot.inFlight;
    figures.pending = snapshot.pending;
    figures.waitingForRetry = snapshot.waitingForRetry;
    figures.heldBytes = snapshot.heldBytes;
    figures.tries = snapshot.delivered;
    figures.verdicts = {{"done", snapshot.done}, {"retry", snapshot.retried}, {"dead", snapshot.dead}};
    figures.tooManyTries = snapshot.tooManyTries;
    figures.parked = snapshot.parked;
    figures.overdue = snapshot.overdue;
    figures.configuration = ConfigurationOf(application.Name());
    return figures;
}

ConfigurationFigures AgentReport::ConfigurationOf(const std::string& application) const
{
    const ConfigurationSummary summary = m_sources.subscriptions.Summary(application);
    ConfigurationFigures figures =
        m_sources.configurations.Of(application, NameOf(CONFIGURATION_STATES, summary.state));
    figures.topics = summary.topics;
    figures.queues = summary.queues;
    figures.error = summary.error.substr(0, LONGEST_ERROR_TEXT);
    return figures;
}

RouteFigures AgentReport::RouteTotals() const
{
    const RouteCounts counts = m_sources.topology.Counts();
    return {Named(ROUTE_STATES, counts.bindings), counts.queues, m_sources.topology.IsJournalDegraded()};
}

} // namespace VtxQel

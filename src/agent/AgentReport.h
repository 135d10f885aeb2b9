#pragma once

#include "admin/AdminPort.h"
#include "agent/ConfigurationLog.h"
#include "agent/RouteExplainer.h"
#include "apps/ApplicationSet.h"
#include "apps/Subscriptions.h"
#include "broker/BrokerClient.h"

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace VtxQel
{

/** Whom the report asks; all of them outlive it. */
struct ReportSources
{
    const BrokerClient& client;
    const Topology& topology;
    const ApplicationSet& applications;
    const Subscriptions& subscriptions;
    const ConfigurationLog& configurations;
    const LocalAppDispatcher& dispatcher;
};

/**
 * AgentReport gathers what the modules know of themselves into what the admin endpoint and a ping's reply show. Any
 * thread may call.
 */
class AgentReport : public AdminPort
{
  public:
    AgentReport(std::string id, const BrokerSettings& broker, ReportSources sources);

    AgentStatus Status() const override;
    std::vector<std::string> NotReady() const override;
    RouteRows Routes(const RouteQuery& query) const override;
    RouteExplanation Explain(const ExplainQuery& query) const override { return m_explainer.Explain(query); }
    void SetLogLevel(int level) override;

    /** The body of a ping's reply; see docs/admin.md. */
    std::string PingReply() const;
    /** The agent is stopping: it is not ready from now on. */
    void SetStopping() { m_stopping = true; }

  private:
    ConnectionFigures Connection(const LinkStatus& link) const;
    LoopProbeFigures Probe() const;
    std::vector<LaneFigures> Lanes(const DeliveryStatus& deliveries) const;
    ApplicationFigures ApplicationOf(const Application& application) const;
    ConfigurationFigures ConfigurationOf(const std::string& application) const;
    RouteFigures RouteTotals() const;

    const std::string m_id;
    const LoopProbeSettings m_loopProbe;
    const OwnQueueNames m_queues;
    const ReportSources m_sources;
    const RouteExplainer m_explainer;
    const WallTime m_startedAt = std::chrono::system_clock::now();
    const std::chrono::steady_clock::time_point m_began = std::chrono::steady_clock::now();
    std::atomic<bool> m_stopping{false};
};

} // namespace VtxQel

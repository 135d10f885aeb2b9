#pragma once

#include "admin/RouteExplanation.h"
#include "apps/LocalAppDispatcher.h"
#include "broker/BrokerClient.h"

#include <string>
#include <vector>

namespace VtxQel
{

/** Whom the explainer asks; all of them outlive it. */
struct ExplainerSources
{
    const BrokerClient& client;
    const Topology& topology;
    const Subscriptions& subscriptions;
    const LocalAppDispatcher& dispatcher;
};

/**
 * RouteExplainer tells an operator the way of a message by asking those who decide it: the topology for bindings, the
 * lanes for the route, the dispatcher for receivers. Any thread may call; what is asked one after the other may change
 * in between.
 */
class RouteExplainer
{
  public:
    RouteExplainer(const BrokerSettings& settings, ExplainerSources sources);

    RouteExplanation Explain(const ExplainQuery& query) const;

  private:
    bool IsConsumed(const std::string& queue) const;
    bool Fits(const std::string& topic, const std::string& routingKey) const;
    std::vector<ExplainedCopy> Copies(const ExplainQuery& query) const;
    void FindRoute(const ExplainQuery& query, ExplainedCopy& copy) const;
    void FindReceivers(const ExplainQuery& query, ExplainedCopy& copy) const;
    void ExplainControl(const ExplainQuery& query, ExplainedCopy& copy) const;
    std::string WhyTaken(const ExplainedCopy& copy, const std::string& application) const;

    const RmqInfo m_info;
    const std::vector<std::string> m_controlUsers;
    const ExplainerSources m_sources;
};

} // namespace VtxQel

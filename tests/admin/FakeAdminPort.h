#pragma once

#include "admin/AdminPort.h"

#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

/** An agent that is what the test says. */
class FakeAdminPort : public AdminPort
{
  public:
    AgentStatus Status() const override
    {
        AgentStatus copy = status;
        copy.notReady = notReady;
        return copy;
    }
    std::vector<std::string> NotReady() const override { return notReady; }
    RouteRows Routes(const RouteQuery& query) const override
    {
        lastQuery = query;
        return routes;
    }
    RouteExplanation Explain(const ExplainQuery& query) const override
    {
        lastExplained = query;
        return explanation;
    }
    void SetLogLevel(int wanted) override { level = wanted; }

    AgentStatus status;
    std::vector<std::string> notReady;
    RouteRows routes;
    RouteExplanation explanation;
    std::optional<int> level;
    mutable std::optional<RouteQuery> lastQuery;
    mutable std::optional<ExplainQuery> lastExplained;
};

} // namespace VtxQel

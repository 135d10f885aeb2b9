#pragma once

#include "admin/AgentStatus.h"
#include "admin/RouteExplanation.h"

#include <string>
#include <vector>

namespace VtxQel
{

/** What the admin endpoint asks of the agent. Called on the endpoint's thread; nothing blocks but for short locks. */
class AdminPort
{
  public:
    virtual ~AdminPort() = default;

    virtual AgentStatus Status() const = 0;
    /** Why the agent is not ready, a line each; nothing when it is. */
    virtual std::vector<std::string> NotReady() const = 0;
    virtual RouteRows Routes(const RouteQuery& query) const = 0;
    virtual RouteExplanation Explain(const ExplainQuery& query) const = 0;
    /** @param level 0 to 7 */
    virtual void SetLogLevel(int level) = 0;
};

} // namespace VtxQel

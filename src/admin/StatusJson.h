#pragma once

#include "admin/AgentStatus.h"
#include "admin/RouteExplanation.h"

#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

/** The agent's status as JSON text; text that is not UTF-8 is made so. */
std::string StatusJson(const AgentStatus& status);
/** One page of the routes. */
std::string RoutesJson(const RouteQuery& query, const RouteRows& routes);
/** The way of a message. */
std::string ExplanationJson(const ExplainQuery& query, const RouteExplanation& explanation);
/** Whether the agent is ready and why not. */
std::string ReadinessJson(const std::vector<std::string>& reasons);
/** An answer that is an error. */
std::string ErrorJson(const std::string& text);

/** The time in UTC with milliseconds, as RFC 3339 writes it. */
std::string Rfc3339(WallTime time);

} // namespace VtxQel

#pragma once

#include "admin/AgentStatus.h"

#include <string>

namespace VtxQel
{

/** The agent's status in Prometheus' text format. docs/metrics.md explains each metric. */
std::string MetricsText(const AgentStatus& status);

} // namespace VtxQel

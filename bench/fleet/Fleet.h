#pragma once

#include "FleetAgent.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * Fleet is many simulated agents in one process, told what to do by one thread. Each has the threads that a real one
 * has for its broker; the moments of moves come from a scheduler that all share.
 */
class Fleet
{
  public:
    /** One agent for each *.toml in the folder. @throws ConfigError for one that is no agent's configuration */
    Fleet(const std::string& folder, std::size_t topics);
    ~Fleet();
    Fleet(const Fleet&) = delete;
    Fleet& operator=(const Fleet&) = delete;

    std::size_t Size() const { return m_agents.size(); }
    /** Starts the agents evenly over the time given, and returns when the last one is started. */
    void Start(std::chrono::milliseconds within);
    /** Ends all of them, many at a time. */
    void Stop();
    std::vector<FleetAgentFigures> Figures() const;

  private:
    Scheduler m_timers{"qel-fleet"};
    std::vector<std::unique_ptr<FleetAgent>> m_agents;
};

} // namespace VtxQel

#pragma once

#include "AgentAddress.h"
#include "Command.h"
#include "PingReport.h"

#include <cstdint>
#include <vector>

namespace VtxQel
{

/** `qelctl ping AGENT`: asks the agent for a sign of life over the broker and prints what it says and how long it took.
 */
class PingCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    struct Answer
    {
        double milliseconds;
        PingReport report;
    };

    Answer PingOnce(ManagementSession& session) const;
    void PrintRound(std::uint32_t sequence, const Answer& answer, bool json) const;
    void PrintSummary(const std::vector<double>& roundTrips) const;

    AgentAddress m_agent;
    std::uint32_t m_count = 1;
    double m_intervalSeconds = 1;
};

} // namespace VtxQel

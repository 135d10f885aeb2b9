#pragma once

#include "AgentAddress.h"
#include "Command.h"

namespace VtxQel
{

/** `qelctl reassign AGENT`: hints the agent to move to another of its brokers. The agent does not answer hints. */
class ReassignCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    AgentAddress m_agent;
};

} // namespace VtxQel

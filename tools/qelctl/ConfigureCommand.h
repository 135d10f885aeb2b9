#pragma once

#include "AgentAddress.h"
#include "Command.h"
#include "appinit/AppInitConfigMsg.pb.h"

#include <string>

namespace VtxQel
{

/**
 * `qelctl configure AGENT APP FILE`: gives an application of the agent its topics and queues, read from JSON. The agent
 * does not answer configurations: it has worked when the broker has put the message into the agent's queue.
 */
class ConfigureCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    void Send(const GlobalOptions& options, const brelix::vtx::messaging::appinit::AppInitConfigMsg& message) const;
    void Report(bool json, const brelix::vtx::messaging::appinit::AppInitConfigMsg& message) const;

    AgentAddress m_agent;
    std::string m_application;
    std::string m_file;
    bool m_checkOnly = false;
};

} // namespace VtxQel

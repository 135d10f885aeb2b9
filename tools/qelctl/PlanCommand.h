#pragma once

#include "AdminClient.h"
#include "Command.h"

#include <string>

namespace VtxQel
{

struct Plan;

/**
 * `qelctl plan AGENT APP FILE`: what the configuration would change for the application beside what is in force. It
 * asks the agent of this host and changes nothing.
 */
class PlanCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    Plan Make(std::chrono::milliseconds timeout) const;

    AdminClient m_admin;
    std::string m_agent;
    std::string m_application;
    std::string m_file;
};

} // namespace VtxQel

#pragma once

#include "AdminClient.h"
#include "Command.h"

namespace VtxQel
{

/** `qelctl health`: status 0 when the agent is ready, 1 with the reasons when it is not, 3 when no agent answers. */
class HealthCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    AdminClient m_admin;
};

} // namespace VtxQel

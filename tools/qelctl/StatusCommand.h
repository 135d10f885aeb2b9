#pragma once

#include "AdminClient.h"
#include "Command.h"

namespace VtxQel
{

/** `qelctl status`: what the agent on this host is doing. */
class StatusCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    AdminClient m_admin;
};

} // namespace VtxQel

#pragma once

#include "AdminClient.h"
#include "Command.h"

namespace VtxQel
{

/** `qelctl log-level [LEVEL]`: shows the log level, or changes it until the next start or reload. */
class LogLevelCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    AdminClient m_admin;
    int m_level = -1;
};

} // namespace VtxQel

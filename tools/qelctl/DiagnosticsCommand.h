#pragma once

#include "AdminClient.h"
#include "Command.h"

#include <string>

namespace VtxQel
{

/**
 * `qelctl diagnostics FILE`: everything that helps others to help, in one JSON file, without secrets: the agent's
 * state, its metrics and the first routes, and what is known of the host.
 */
class DiagnosticsCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    AdminClient m_admin;
    std::string m_file;
};

} // namespace VtxQel

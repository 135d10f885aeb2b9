#pragma once

#include "Command.h"
#include "Findings.h"
#include "HostCheckup.h"

#include <optional>
#include <string>

namespace VtxQel
{

/** `qelctl doctor`: looks for what keeps the agent of this host from working, whether it runs or not. */
class DoctorCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    std::optional<ReadConfiguration> Read(Findings& findings) const;

    std::string m_file = "/etc/qel/qel.toml";
};

} // namespace VtxQel

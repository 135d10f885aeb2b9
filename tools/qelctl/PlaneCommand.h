#pragma once

#include "Command.h"
#include "PlaneServer.h"

#include <string>

namespace VtxQel
{

/**
 * `qelctl plane DIR`: answers the agents that ask for their applications' configurations from files, and sends a file's
 * whenever it changes, until SIGINT or SIGTERM.
 */
class PlaneCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    std::string m_directory;
    PlaneAddress m_address;
};

} // namespace VtxQel

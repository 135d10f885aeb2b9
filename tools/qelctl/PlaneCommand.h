#pragma once

#include "Command.h"
#include "ManagementSession.h"

#include <atomic>
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
    RequestService Service() const;

    std::string m_directory;
    std::string m_exchange;
    std::string m_routingKey;
    std::string m_queue;
    std::atomic<bool> m_stop{false};
};

} // namespace VtxQel

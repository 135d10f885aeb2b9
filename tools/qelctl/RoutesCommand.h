#pragma once

#include "AdminClient.h"
#include "Command.h"

#include <cstdint>
#include <string>

namespace VtxQel
{

/** `qelctl routes [TEXT]`: the topics and queues in force, those whose name contains the text. */
class RoutesCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    AdminClient m_admin;
    std::string m_search;
    std::uint32_t m_limit = 100;
};

} // namespace VtxQel

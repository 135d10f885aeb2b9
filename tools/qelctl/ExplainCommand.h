#pragma once

#include "AdminClient.h"
#include "Command.h"

#include <string>

namespace VtxQel
{

/** `qelctl explain KEY`: what becomes of a message that is published with this routing key, and why. */
class ExplainCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    std::string Target() const;

    AdminClient m_admin;
    std::string m_key;
    std::string m_queue;
    std::string m_type;
    std::string m_appId;
};

} // namespace VtxQel

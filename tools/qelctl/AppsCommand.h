#pragma once

#include "AdminClient.h"
#include "Command.h"

namespace VtxQel
{

/** `qelctl apps`: the applications of this host, what they are given and what they make of it. */
class AppsCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    AdminClient m_admin;
};

} // namespace VtxQel

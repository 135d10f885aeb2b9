#pragma once

#include "GlobalOptions.h"

namespace CLI
{
class App;
}

namespace VtxQel
{

/**
 * One verb of qelctl.
 *
 * Used from the main thread: first Register(), then, when the command line names the verb, Run() once. Run() returns
 * when the verb has worked and throws Failure or UsageError when it has not.
 */
class Command
{
  public:
    virtual ~Command() = default;

    /** Adds the verb with its options to the command line; the options land in this object, which must outlive it. */
    virtual CLI::App* Register(CLI::App& root) = 0;
    /** Carries the verb out. */
    virtual void Run(const GlobalOptions& options) = 0;
};

} // namespace VtxQel

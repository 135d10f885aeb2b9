#include "AppsCommand.h"
#include "AttachCommand.h"
#include "ConfigureCommand.h"
#include "DeadLettersCommand.h"
#include "DevCommand.h"
#include "DiagnosticsCommand.h"
#include "DoctorCommand.h"
#include "ExplainCommand.h"
#include "Failure.h"
#include "HealthCommand.h"
#include "LogLevelCommand.h"
#include "PingCommand.h"
#include "PlanCommand.h"
#include "PlaneCommand.h"
#include "PublishCommand.h"
#include "ReassignCommand.h"
#include "RoutesCommand.h"
#include "StatusCommand.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <vector>

namespace
{

constexpr int failed = 1;
constexpr int usage = 2;

using namespace VtxQel;

/** Prints every line of a message for the operator, with our name in front of the first. */
int Complain(const std::string& text, int status)
{
    std::cerr << "qelctl: " << text << std::endl;
    return status;
}

int RunVerb(Command& command, const GlobalOptions& options)
{
    try
    {
        command.Run(options);
        return 0;
    }
    catch (const UsageError& error)
    {
        return Complain(error.what(), usage);
    }
    catch (const Failure& error)
    {
        return Complain(error.what(), error.Status());
    }
    catch (const std::exception& error)
    {
        return Complain(error.what(), failed);
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App root("The tool for operators, the management plane and application developers of qel-agent.", "qelctl");
    root.set_version_flag("--version", "qelctl " QEL_VERSION);
    root.require_subcommand(1);
    root.fallthrough();
    GlobalOptions options;
    options.Register(root);

    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<StatusCommand>());
    commands.push_back(std::make_unique<AppsCommand>());
    commands.push_back(std::make_unique<RoutesCommand>());
    commands.push_back(std::make_unique<ExplainCommand>());
    commands.push_back(std::make_unique<PlanCommand>());
    commands.push_back(std::make_unique<HealthCommand>());
    commands.push_back(std::make_unique<DoctorCommand>());
    commands.push_back(std::make_unique<LogLevelCommand>());
    commands.push_back(std::make_unique<DiagnosticsCommand>());
    commands.push_back(std::make_unique<PingCommand>());
    commands.push_back(std::make_unique<ConfigureCommand>());
    commands.push_back(std::make_unique<PlaneCommand>());
    commands.push_back(std::make_unique<ReassignCommand>());
    commands.push_back(std::make_unique<PublishCommand>());
    commands.push_back(std::make_unique<AttachCommand>());
    commands.push_back(std::make_unique<DevCommand>());
    commands.push_back(std::make_unique<DeadLettersCommand>());
    std::map<const CLI::App*, Command*> verbs;
    for (const auto& command : commands)
    {
        verbs[command->Register(root)] = command.get();
    }

    try
    {
        root.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return root.exit(error) == 0 ? 0 : usage;
    }
    return RunVerb(*verbs.at(root.get_subcommands().front()), options);
}

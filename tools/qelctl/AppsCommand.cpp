#include "AppsCommand.h"

#include "StatusText.h"
#include "TextTable.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <string>

namespace VtxQel
{

using nlohmann::json;

CLI::App* AppsCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("apps", "Show this host's applications");
    m_admin.Register(*verb);
    return verb;
}

void AppsCommand::Run(const GlobalOptions& options)
{
    const json status = json::parse(m_admin.Fetch("/status", options.Timeout()));
    const json& applications = status.at("applications");
    if (options.json)
    {
        std::cout << applications.dump() << std::endl;
        return;
    }
    TextTable table(
        {"APPLICATION", "INSTANCES", "FLOW", "IN FLIGHT", "PENDING", "DONE", "RETRY", "DEAD", "CONFIGURATION", "HASH",
         "TOPICS", "QUEUES"});
    for (const json& application : applications)
    {
        const json& configuration = application.at("configuration");
        const json& verdicts = application.at("verdicts");
        table.Add(
            {TextOf(application.at("name")), TextOf(application.at("instances")), TextOf(application.at("flow")),
             TextOf(application.at("inFlight")), TextOf(application.at("pending")), TextOf(verdicts.at("done")),
             TextOf(verdicts.at("retry")), TextOf(verdicts.at("dead")), TextOf(configuration.at("state")),
             TextOf(configuration.at("hash")), TextOf(configuration.at("topics")), TextOf(configuration.at("queues"))});
    }
    table.Print(std::cout);
    for (const json& application : applications)
    {
        const std::string error = TextOf(application.at("configuration").at("error"));
        if (application.at("configuration").at("state") == "failed")
        {
            std::cout << TextOf(application.at("name")) << ": " << error << '\n';
        }
    }
    std::cout << std::flush;
}

} // namespace VtxQel

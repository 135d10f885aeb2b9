#include "HealthCommand.h"

#include "Failure.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <sstream>
#include <string>

namespace VtxQel
{

CLI::App* HealthCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("health", "Tell by the exit status whether the agent is ready");
    m_admin.Register(*verb);
    return verb;
}

void HealthCommand::Run(const GlobalOptions& options)
{
    const AdminAnswer readiness = m_admin.Get("/readyz", options.Timeout());
    constexpr unsigned ok = 200;
    constexpr unsigned unavailable = 503;
    if (readiness.status != ok && readiness.status != unavailable)
    {
        throw Failure("the agent answered " + std::to_string(readiness.status) + ": " + readiness.body);
    }
    const bool isReady = readiness.status == ok;
    if (options.json)
    {
        nlohmann::ordered_json answer = {{"ready", isReady}, {"reasons", nlohmann::ordered_json::array()}};
        std::istringstream reasons(isReady ? "" : readiness.body);
        for (std::string reason; std::getline(reasons, reason);)
        {
            answer["reasons"].push_back(reason);
        }
        std::cout << answer.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << std::endl;
    }
    if (!isReady)
    {
        throw Failure("the agent is not ready: " + readiness.body.substr(0, readiness.body.find_last_not_of('\n') + 1));
    }
    if (!options.json)
    {
        std::cout << "ready" << std::endl;
    }
}

} // namespace VtxQel

#include "LogLevelCommand.h"

#include "Failure.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <string>

namespace VtxQel
{

CLI::App* LogLevelCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("log-level", "Show or change the log level of the running agent");
    m_admin.Register(*verb);
    verb->add_option("LEVEL", m_level, "0 to 7; counts until the agent starts or reloads")->check(CLI::Range(0, 7));
    return verb;
}

void LogLevelCommand::Run(const GlobalOptions& options)
{
    if (m_level >= 0)
    {
        const AdminAnswer answer = m_admin.Put("/log-level", std::to_string(m_level), options.Timeout());
        constexpr unsigned firstError = 300;
        if (answer.status >= firstError)
        {
            throw Failure("the agent answered " + std::to_string(answer.status) + ": " + answer.body);
        }
    }
    const auto status = nlohmann::json::parse(m_admin.Fetch("/status", options.Timeout()));
    const int level = status.at("agent").at("logLevel").get<int>();
    if (options.json)
    {
        std::cout << nlohmann::json{{"logLevel", level}}.dump() << std::endl;
        return;
    }
    std::cout << level << std::endl;
}

} // namespace VtxQel

#include "DoctorCommand.h"

#include "AdminClient.h"
#include "BrokerCheckup.h"
#include "Failure.h"
#include "StatusText.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <sstream>
#include <utility>

namespace VtxQel
{

namespace
{

using nlohmann::json;

void FailEachLine(Findings& findings, const std::string& text, const std::string& cure)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        findings.Fail("configuration", line, cure);
    }
}

/** Whether an agent answers. */
bool CheckAgent(const AgentConfig& config, std::chrono::milliseconds timeout, Findings& findings)
{
    try
    {
        const json status = json::parse(AdminClient(config.runtimeDirectory).Fetch("/status", timeout));
        const std::string id = TextOf(status.at("agent").at("id"));
        if (id != config.id)
        {
            findings.Fail(
                "agent", "the agent that runs calls itself " + id + ", its configuration " + config.id,
                "restart it: it has another configuration");
        }
        else if (status.at("ready").get<bool>())
        {
            findings.Ok(
                "agent", id + " runs and is ready, for " + DurationText(status.at("agent").at("uptimeSeconds")));
        }
        for (const json& reason : status.at("reasons"))
        {
            findings.Fail("agent", "it runs and is not ready: " + TextOf(reason), "see the lines below, and its log");
        }
        return true;
    }
    catch (const Failure& failure)
    {
        findings.Warn("agent", failure.what(), "systemctl start qel-agent; journalctl -u qel-agent says why it ended");
        return false;
    }
}

} // namespace

CLI::App* DoctorCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("doctor", "Look for what keeps this host's agent from working");
    verb->add_option("--config", m_file, "The agent's configuration file (default /etc/qel/qel.toml)")
        ->type_name("FILE");
    return verb;
}

void DoctorCommand::Run(const GlobalOptions& options)
{
    Findings findings(options.json);
    std::optional<ReadConfiguration> read = Read(findings);
    if (read)
    {
        if (const std::optional<std::string> password = options.Password())
        {
            read->config.broker.link.password = *password;
        }
        const bool runs = CheckAgent(read->config, options.Timeout(), findings);
        HostCheckup host(*read, findings);
        host.CheckFiles();
        host.CheckDirectories(runs);
        if (runs)
        {
            host.CheckSockets();
        }
        host.CheckDisk();
        host.CheckClock();
        BrokerCheckup(read->config, options.Timeout(), findings).CheckBrokers();
    }
    if (findings.Failures() != 0)
    {
        throw Failure(
            std::to_string(findings.Failures()) + " failures, " + std::to_string(findings.Warnings()) + " warnings");
    }
}

std::optional<ReadConfiguration> DoctorCommand::Read(Findings& findings) const
{
    const std::string cure = "mend it (as root: the file may not be for everybody) and try again";
    try
    {
        ReadConfiguration read{m_file, LoadAgentConfig(m_file), {}};
        read.dropIns = LoadDropIns(read.config.applicationsDirectory);
        CheckOwners(read.dropIns);
        for (const std::string& problem : read.dropIns.problems)
        {
            findings.Fail("configuration", problem, cure);
        }
        for (const std::string& warning : read.config.warnings)
        {
            findings.Add({Grade::warning, "configuration", warning, ""});
        }
        if (read.dropIns.problems.empty())
        {
            findings.Ok(
                "configuration",
                m_file + " is sound, applications: " + std::to_string(read.dropIns.applications.size()));
        }
        return read;
    }
    catch (const ConfigError& error)
    {
        FailEachLine(findings, error.what(), cure);
        return std::nullopt;
    }
}

} // namespace VtxQel

#include "StatusCommand.h"

#include "StatusText.h"
#include "TextTable.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <string>

namespace VtxQel
{

namespace
{

using nlohmann::json;

/** Labels and values, one a line. */
void PrintFacts(const json& status)
{
    const json& agent = status.at("agent");
    const json& connection = status.at("connection");
    const json& routes = status.at("routes").at("bindings");
    TextTable facts({"agent", TextOf(agent.at("id"))});
    facts.Add({"version", TextOf(agent.at("version"))});
    facts.Add({"up for", DurationText(agent.at("uptimeSeconds"))});
    facts.Add({"ready", status.at("ready").get<bool>() ? "yes" : "no"});
    for (const json& reason : status.at("reasons"))
    {
        facts.Add({"", TextOf(reason)});
    }
    facts.Add({"broker", TextOf(connection.at("url")) + ", " + TextOf(connection.at("state"))});
    facts.Add({"connected for", DurationText(connection.at("ageSeconds"))});
    if (connection.at("blocked").get<bool>())
    {
        facts.Add({"", "the broker takes no messages (an alarm)"});
    }
    if (!TextOf(connection.at("lastError")).empty())
    {
        facts.Add({"last error", TextOf(connection.at("lastError"))});
    }
    facts.Add(
        {"loop probe", TextOf(status.at("loopProbe").at("state")) + ", " +
                           MillisecondsText(status.at("loopProbe").at("roundTripSeconds"))});
    facts.Add(
        {"bindings", std::to_string(routes.at("inForce").get<std::uint64_t>()) + " in force, " +
                         std::to_string(routes.at("leaving").get<std::uint64_t>()) + " leaving"});
    facts.Add(
        {"configurations", TextOf(status.at("configurations").at("applied")) + " applied, " +
                               TextOf(status.at("configurations").at("failed")) + " failed"});
    facts.Print(std::cout);
}

void PrintLanes(const json& status)
{
    TextTable lanes({"LANE", "RECEIVED", "WAITING", "IN FLIGHT", "DONE", "PARKED", "DEAD", "P50", "P99"});
    for (const json& lane : status.at("lanes"))
    {
        const json& settled = lane.at("settled");
        lanes.Add(
            {TextOf(lane.at("name")), TextOf(lane.at("received")), TextOf(lane.at("waiting")),
             TextOf(lane.at("inFlight")), TextOf(settled.at("done")), TextOf(settled.at("parked")),
             TextOf(settled.at("dead")), MillisecondsText(lane.at("latency").at("p50Seconds")),
             MillisecondsText(lane.at("latency").at("p99Seconds"))});
    }
    lanes.Print(std::cout);
}

} // namespace

CLI::App* StatusCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("status", "Show what the agent on this host is doing");
    m_admin.Register(*verb);
    return verb;
}

void StatusCommand::Run(const GlobalOptions& options)
{
    const std::string body = m_admin.Fetch("/status", options.Timeout());
    if (options.json)
    {
        std::cout << body << std::flush;
        return;
    }
    const json status = json::parse(body);
    PrintFacts(status);
    std::cout << '\n';
    PrintLanes(status);
    std::cout << std::flush;
}

} // namespace VtxQel

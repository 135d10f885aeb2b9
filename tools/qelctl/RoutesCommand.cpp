#include "RoutesCommand.h"

#include "StatusText.h"
#include "TextTable.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>

namespace VtxQel
{

namespace
{

using nlohmann::json;

/** The most that the agent gives at once. */
constexpr std::uint32_t PAGE = 500;

} // namespace

CLI::App* RoutesCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("routes", "Show the topics and queues in force");
    m_admin.Register(*verb);
    verb->add_option("TEXT", m_search, "Only those whose name contains this");
    verb->add_option("--limit", m_limit, "How many at the most (default 100)")
        ->check(CLI::Range(std::uint32_t{1}, std::uint32_t{10000000}))
        ->type_name("N");
    return verb;
}

void RoutesCommand::Run(const GlobalOptions& options)
{
    json routes = json::array();
    json page;
    do
    {
        const std::size_t wanted = std::min<std::size_t>(PAGE, m_limit - routes.size());
        page = json::parse(m_admin.Fetch(
            "/routes?search=" + UrlEncoded(m_search) + "&offset=" + std::to_string(routes.size()) +
                "&limit=" + std::to_string(wanted),
            options.Timeout()));
        routes.insert(routes.end(), page.at("routes").begin(), page.at("routes").end());
    } while (!page.at("routes").empty() && routes.size() < m_limit);

    if (options.json)
    {
        std::cout << json{{"total", page.at("total")}, {"matching", page.at("matching")}, {"routes", routes}}.dump()
                  << std::endl;
        return;
    }
    TextTable table({"KIND", "NAME", "QUEUE", "STATE", "APPLICATIONS"});
    for (const json& route : routes)
    {
        table.Add(
            {TextOf(route.at("kind")), TextOf(route.at("name")), TextOf(route.at("queue")), TextOf(route.at("state")),
             ListText(route.at("applications"))});
    }
    table.Print(std::cout);
    const auto matching = page.at("matching").get<std::size_t>();
    if (routes.size() < matching)
    {
        std::cout << routes.size() << " of " << matching << "; --limit shows more\n";
    }
    std::cout << std::flush;
}

} // namespace VtxQel

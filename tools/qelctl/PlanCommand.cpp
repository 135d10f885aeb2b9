#include "PlanCommand.h"

#include "ApplicationName.h"
#include "ConfigurationFile.h"
#include "Failure.h"
#include "Plan.h"
#include "StatusText.h"

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
constexpr std::size_t PAGE = 500;

template <class Visitor>
void ForEachRoute(
    const AdminClient& admin, std::chrono::milliseconds timeout, const std::string& query, const Visitor& visit)
{
    std::size_t seen = 0;
    json page;
    do
    {
        page = json::parse(admin.Fetch(
            "/routes?" + query + "&offset=" + std::to_string(seen) + "&limit=" + std::to_string(PAGE), timeout));
        for (const json& route : page.at("routes"))
        {
            visit(route);
        }
        seen += page.at("routes").size();
    } while (!page.at("routes").empty() && seen < page.at("matching").get<std::size_t>());
}

/** Whom the queue belongs to by now; empty when to nobody. */
std::string OwnerOf(const AdminClient& admin, std::chrono::milliseconds timeout, const std::string& queue)
{
    std::string owner;
    ForEachRoute(
        admin, timeout, "search=" + UrlEncoded(queue),
        [&](const json& route)
        {
            if (route.at("kind") == "queue" && route.at("name") == queue)
            {
                owner = ListText(route.at("applications"));
            }
        });
    return owner;
}

bool IsKnown(const json& status, const std::string& application)
{
    const json& all = status.at("applications");
    return std::any_of(all.begin(), all.end(), [&](const json& one) { return one.at("name") == application; });
}

} // namespace

CLI::App* PlanCommand::Register(CLI::App& root)
{
    CLI::App* verb =
        root.add_subcommand("plan", "Show what a configuration would change on this host, without doing it");
    m_admin.Register(*verb);
    verb->add_option("agent", m_agent, "The id of this host's agent")->required()->type_name("AGENT");
    verb->add_option("application", m_application, "The application's name")
        ->required()
        ->check(ApplicationNameValidator())
        ->type_name("APP");
    verb->add_option("file", m_file, "The configuration in JSON, - for the standard input")
        ->required()
        ->type_name("FILE");
    return verb;
}

void PlanCommand::Run(const GlobalOptions& options)
{
    const Plan plan = Make(options.Timeout());
    if (options.json)
    {
        nlohmann::ordered_json line = {{"agent", m_agent}, {"application", m_application}};
        line.update(plan.ToJson());
        std::cout << line.dump(-1, ' ', false, json::error_handler_t::replace) << std::endl;
    }
    else
    {
        std::cout << plan.ToText() << std::flush;
    }
    if (!plan.refusals.empty())
    {
        throw Failure("the agent would refuse the configuration");
    }
}

Plan PlanCommand::Make(std::chrono::milliseconds timeout) const
{
    const auto message = ReadConfiguration(m_file);
    const json status = json::parse(m_admin.Fetch("/status", timeout));
    const std::string id = TextOf(status.at("agent").at("id"));
    if (id != m_agent)
    {
        throw Failure(
            "this host's agent is " + id + ": only what is in force on this host can be seen, so ask on that of " +
                m_agent,
            AdminClient::NO_AGENT);
    }
    const json& queues = status.at("queues");
    const AgentQueueNames names{
        TextOf(queues.at("client")), TextOf(queues.at("priority")), TextOf(queues.at("deadLetter"))};
    ApplicationRoutes has;
    ForEachRoute(
        m_admin, timeout, "application=" + UrlEncoded(m_application),
        [&has](const json& route)
        {
            if (route.at("kind") == "topic")
            {
                has.queueOfTopic[TextOf(route.at("name"))] = TextOf(route.at("queue"));
            }
            else
            {
                has.queues.insert(TextOf(route.at("name")));
            }
        });
    Plan plan = Plan::Between(has, ApplicationRoutes::Of(message, names), names);
    if (!IsKnown(status, m_application))
    {
        plan.refusals.push_back("there is no application " + m_application + " on this host");
    }
    for (const PlannedChange& change : plan.changes)
    {
        if (!change.isTopic && change.kind == PlannedChange::Kind::add)
        {
            const std::string owner = OwnerOf(m_admin, timeout, change.name);
            if (!owner.empty())
            {
                plan.refusals.push_back("queue " + change.name + " belongs to " + owner);
            }
        }
    }
    return plan;
}

} // namespace VtxQel

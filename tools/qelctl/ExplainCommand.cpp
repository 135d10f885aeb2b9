#include "ExplainCommand.h"

#include "StatusText.h"
#include "TextTable.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <map>

namespace VtxQel
{

namespace
{

using nlohmann::json;

/** What brings a copy to its queue. */
std::string BroughtBy(const json& copy)
{
    std::string text;
    const auto add = [&text](const std::string& item) { text += (text.empty() ? "" : ", ") + item; };
    for (const json& binding : copy.at("bindings"))
    {
        const std::string state = TextOf(binding.at("state"));
        add("topic " + TextOf(binding.at("topic")) + (state == "inForce" ? "" : " (" + state + ")"));
    }
    if (copy.at("named").get<bool>())
    {
        add("the queue's name");
    }
    return text.empty() ? "nothing of the agent's" : text;
}

std::string ReceiverText(const json& receiver)
{
    const auto instances = receiver.at("instances").get<std::size_t>();
    return TextOf(receiver.at("application")) + " (" + TextOf(receiver.at("flow")) + ", " + std::to_string(instances) +
           (instances == 1 ? " instance)" : " instances)");
}

std::string OtherEnd(const json& copy)
{
    static const std::map<std::string, std::string> ends{
        {"agent", "the agent itself"},
        {"otherCopy", "nobody"},
        {"waits", "nobody yet"},
        {"deadLetters", "the dead letters"}};
    const std::string name = TextOf(copy.at("goesTo"));
    const auto end = ends.find(name);
    return end == ends.end() ? name : end->second;
}

void Print(const json& explanation)
{
    if (explanation.at("copies").empty())
    {
        std::cout << "nobody gets it: " << TextOf(explanation.at("why")) << std::endl;
        return;
    }
    TextTable table({"QUEUE", "BROUGHT BY", "ROUTE", "GOES TO", "WHY"});
    for (const json& copy : explanation.at("copies"))
    {
        const json& route = copy.at("route");
        const std::string routed = TextOf(route.at("kind")) + " " + TextOf(route.at("key"));
        for (const json& receiver : copy.at("receivers"))
        {
            table.Add(
                {TextOf(copy.at("queue")), BroughtBy(copy), routed, ReceiverText(receiver),
                 TextOf(receiver.at("why"))});
        }
        if (copy.at("receivers").empty())
        {
            table.Add({TextOf(copy.at("queue")), BroughtBy(copy), routed, OtherEnd(copy), TextOf(copy.at("why"))});
        }
    }
    table.Print(std::cout);
    std::cout << std::flush;
}

} // namespace

CLI::App* ExplainCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("explain", "Tell what becomes of a message with a routing key, and why");
    m_admin.Register(*verb);
    verb->add_option("KEY", m_key, "The routing key")->required();
    verb->add_option("--queue", m_queue, "Only the copy that comes from this queue")->type_name("QUEUE");
    verb->add_option("--type", m_type, "The message's type")->type_name("TYPE");
    verb->add_option("--app-id", m_appId, "The message's app-id")->type_name("APP");
    return verb;
}

void ExplainCommand::Run(const GlobalOptions& options)
{
    const std::string answer = m_admin.Fetch(Target(), options.Timeout());
    if (options.json)
    {
        std::cout << answer << std::flush;
        return;
    }
    Print(json::parse(answer));
}

std::string ExplainCommand::Target() const
{
    std::string target = "/explain?key=" + UrlEncoded(m_key);
    for (const auto& [name, value] : {std::pair("queue", &m_queue), {"type", &m_type}, {"app-id", &m_appId}})
    {
        target += value->empty() ? "" : std::string("&") + name + "=" + UrlEncoded(*value);
    }
    return target;
}

} // namespace VtxQel

#include "Plan.h"

#include "common/Printable.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace VtxQel
{

namespace
{

using nlohmann::ordered_json;
using Kind = PlannedChange::Kind;

std::string LineOf(const PlannedChange& change)
{
    const std::string name = (change.isTopic ? "topic " : "queue ") + change.name;
    switch (change.kind)
    {
    case Kind::add:
        return "+ " + name + (change.isTopic ? " -> " + change.to : "");
    case Kind::remove:
        return "- " + name + (change.isTopic ? " -> " + change.from : "");
    case Kind::move:
        break;
    }
    return "~ " + name + ": " + change.from + " -> " + change.to;
}

ordered_json JsonOf(const PlannedChange& change)
{
    const char* const kind = change.kind == Kind::add ? "add" : change.kind == Kind::remove ? "remove" : "move";
    ordered_json json = {{"change", kind}, {"kind", change.isTopic ? "topic" : "queue"}, {"name", change.name}};
    if (!change.from.empty())
    {
        json["from"] = change.from;
    }
    if (!change.to.empty())
    {
        json["to"] = change.to;
    }
    return json;
}

} // namespace

bool AgentQueueNames::IsReserved(const std::string& name) const
{
    return name == client || name == priority || name == deadLetter || name.starts_with(client + ".parked.");
}

ApplicationRoutes ApplicationRoutes::Of(
    const brelix::vtx::messaging::appinit::AppInitConfigMsg& message, const AgentQueueNames& names)
{
    ApplicationRoutes routes;
    for (const auto& topic : message.topic_info())
    {
        routes.queueOfTopic[topic.topic()] = topic.priority() == 0 ? names.client : names.priority;
    }
    routes.queues = {message.queue_name().begin(), message.queue_name().end()};
    return routes;
}

Plan Plan::Between(const ApplicationRoutes& has, const ApplicationRoutes& wanted, const AgentQueueNames& names)
{
    Plan plan;
    for (const auto& [topic, queue] : wanted.queueOfTopic)
    {
        const auto present = has.queueOfTopic.find(topic);
        if (names.IsReserved(topic))
        {
            plan.refusals.push_back("topic " + topic + " is the name of a queue of the agent's own");
        }
        if (present == has.queueOfTopic.end())
        {
            plan.changes.push_back({Kind::add, true, topic, "", queue});
        }
        else if (present->second != queue)
        {
            plan.changes.push_back({Kind::move, true, topic, present->second, queue});
        }
        else
        {
            ++plan.unchanged;
        }
    }
    for (const auto& [topic, queue] : has.queueOfTopic)
    {
        if (!wanted.queueOfTopic.contains(topic))
        {
            plan.changes.push_back({Kind::remove, true, topic, queue, ""});
        }
    }
    for (const std::string& queue : wanted.queues)
    {
        if (names.IsReserved(queue))
        {
            plan.refusals.push_back("queue " + queue + " is the agent's own");
        }
        if (has.queues.contains(queue))
        {
            ++plan.unchanged;
        }
        else
        {
            plan.changes.push_back({Kind::add, false, queue, "", ""});
        }
    }
    for (const std::string& queue : has.queues)
    {
        if (!wanted.queues.contains(queue))
        {
            plan.changes.push_back({Kind::remove, false, queue, "", ""});
        }
    }
    std::stable_sort(
        plan.changes.begin(), plan.changes.end(),
        [](const PlannedChange& left, const PlannedChange& right)
        { return left.isTopic != right.isTopic ? left.isTopic : left.name < right.name; });
    return plan;
}

std::size_t Plan::Count(PlannedChange::Kind kind) const
{
    return static_cast<std::size_t>(std::count_if(
        changes.begin(), changes.end(), [kind](const PlannedChange& change) { return change.kind == kind; }));
}

ordered_json Plan::ToJson() const
{
    ordered_json list = ordered_json::array();
    for (const PlannedChange& change : changes)
    {
        list.push_back(JsonOf(change));
    }
    return {{"changes", list}, {"unchanged", unchanged}, {"refusals", refusals}};
}

std::string Plan::ToText() const
{
    std::string text;
    for (const PlannedChange& change : changes)
    {
        text += Printable(LineOf(change)) + "\n";
    }
    for (const std::string& refusal : refusals)
    {
        text += Printable("! the agent would refuse it: " + refusal) + "\n";
    }
    return text + std::to_string(Count(Kind::add)) + " to add, " + std::to_string(Count(Kind::remove)) +
           " to remove, " + std::to_string(Count(Kind::move)) + " to move, " + std::to_string(unchanged) +
           " as they are\n";
}

} // namespace VtxQel

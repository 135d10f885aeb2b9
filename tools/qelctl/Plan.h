#pragma once

#include "appinit/AppInitConfigMsg.pb.h"

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace VtxQel
{

/** The agent's own queues, which no configuration may name. */
struct AgentQueueNames
{
    std::string client;
    std::string priority;
    std::string deadLetter;

    /** Whether the name is the agent's own: as a topic or a queue it makes it refuse the configuration. */
    bool IsReserved(const std::string& name) const;
};

/** What an application has: its topics with the queues that they are bound to, and its queues. */
struct ApplicationRoutes
{
    std::map<std::string, std::string> queueOfTopic;
    std::set<std::string> queues;

    /** What a configuration asks for; of a topic that is listed twice the last one counts. */
    static ApplicationRoutes Of(
        const brelix::vtx::messaging::appinit::AppInitConfigMsg& message, const AgentQueueNames& names);
};

/** One route that changes. */
struct PlannedChange
{
    enum class Kind
    {
        add,
        remove,
        move
    };
    Kind kind = Kind::add;
    bool isTopic = true;
    std::string name;
    /** Of a topic: the queues that it is and will be bound to, one of them empty unless it moves. */
    std::string from;
    std::string to;
};

/** The difference between what an application has and what a configuration asks for, a plain value. */
struct Plan
{
    std::vector<PlannedChange> changes;
    std::size_t unchanged = 0;
    /** Why the agent would refuse the configuration, a line each. */
    std::vector<std::string> refusals;

    /** By name: first topics, then queues. Refusals are only those because of the agent's own names. */
    static Plan Between(const ApplicationRoutes& has, const ApplicationRoutes& wanted, const AgentQueueNames& names);

    std::size_t Count(PlannedChange::Kind kind) const;
    nlohmann::ordered_json ToJson() const;
    /** For people: a line for each change and refusal, and a summary. */
    std::string ToText() const;
};

} // namespace VtxQel

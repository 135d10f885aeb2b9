#include "qelctl/Plan.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace VtxQel
{
namespace
{

const AgentQueueNames names{"normal", "urgent", "normal.dead"};

TEST(Plan, OfATopicThatIsListedTwiceTheLastOneCounts)
{
    brelix::vtx::messaging::appinit::AppInitConfigMsg message;
    message.add_topic_info()->set_topic("a");
    auto* const again = message.add_topic_info();
    again->set_topic("a");
    again->set_priority(7);
    message.add_queue_name("q");
    const ApplicationRoutes routes = ApplicationRoutes::Of(message, names);
    EXPECT_EQ(routes.queueOfTopic, (std::map<std::string, std::string>{{"a", "urgent"}}));
    EXPECT_EQ(routes.queues, std::set<std::string>{"q"});
}

TEST(Plan, SaysWhatComesGoesMovesAndStays)
{
    const ApplicationRoutes has{{{"goes", "normal"}, {"moves", "normal"}, {"stays", "urgent"}}, {"kept", "old"}};
    const ApplicationRoutes wanted{{{"comes", "urgent"}, {"moves", "urgent"}, {"stays", "urgent"}}, {"kept", "new"}};
    const Plan plan = Plan::Between(has, wanted, names);
    EXPECT_EQ(
        plan.ToText(),
        "+ topic comes -> urgent\n- topic goes -> normal\n~ topic moves: normal -> urgent\n+ queue new\n- queue old\n"
        "2 to add, 2 to remove, 1 to move, 2 as they are\n");
    EXPECT_TRUE(plan.refusals.empty());
    EXPECT_EQ(Plan::Between(has, has, names).ToText(), "0 to add, 0 to remove, 0 to move, 5 as they are\n");
}

TEST(Plan, ProgramsGetTheSame)
{
    const Plan plan = Plan::Between({{{"a", "normal"}}, {}}, {{{"a", "urgent"}}, {"q"}}, names);
    EXPECT_EQ(plan.ToJson(), nlohmann::ordered_json::parse(R"({"changes": [
        {"change": "move", "kind": "topic", "name": "a", "from": "normal", "to": "urgent"},
        {"change": "add", "kind": "queue", "name": "q"}], "unchanged": 0, "refusals": []})"));
}

TEST(Plan, TheAgentsOwnNamesAreRefused)
{
    for (const char* const name : {"normal", "urgent", "normal.dead", "normal.parked.web"})
    {
        EXPECT_EQ(Plan::Between({}, {{{name, "normal"}}, {}}, names).refusals.size(), 1U) << name;
        EXPECT_EQ(Plan::Between({}, {{}, {name}}, names).refusals.size(), 1U) << name;
    }
    EXPECT_TRUE(Plan::Between({}, {{{"normally", "normal"}}, {"dead"}}, names).refusals.empty());
}

} // namespace
} // namespace VtxQel

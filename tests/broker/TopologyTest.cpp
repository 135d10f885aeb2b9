#include "broker/Topology.h"

#include "common/QelException.h"
#include "fakes/FakeTopologyPort.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace VtxQel
{
namespace
{

RouteRecord Topic(const std::string& name, const std::string& queue = "normal")
{
    return {"", RouteKind::topic, name, queue, RouteState::intended};
}

RouteRecord Queue(const std::string& name)
{
    return {"", RouteKind::queue, name, "", RouteState::intended};
}

class TopologyTest : public testing::Test
{
  protected:
    TopologyTest()
    {
        info.exchange = "exchange";
        info.clientQueue = "normal";
        info.priorityQueue = "urgent";
        info.deadLetterQueue = "normal.dead";
        Restart();
    }
    ~TopologyTest() override { std::filesystem::remove_all(folder); }

    /** A new process on the same journal. */
    std::vector<RouteRecord> Restart(const std::set<std::string>& known = {"web", "mail"})
    {
        topology.reset();
        journal.reset();
        journal.emplace((folder / "journal").string());
        topology.emplace(port, *journal, info);
        return topology->Restore([&known](const std::string& name) { return known.contains(name); });
    }

    /** What the handler does with a configuration when nothing fails: unbind what is recorded, bind what is new. */
    void Configure(const std::string& application, const std::vector<RouteRecord>& routes)
    {
        topology->Begin(application, routes);
        for (const RouteRecord& old : recorded[application])
        {
            old.kind == RouteKind::topic ? topology->Unbind({old.queue, "exchange", old.name})
                                         : topology->Cancel(old.name);
        }
        recorded[application].clear();
        for (const RouteRecord& route : routes)
        {
            ASSERT_TRUE(
                route.kind == RouteKind::topic ? topology->Bind({route.queue, "exchange", route.name})
                                               : topology->Declare(route.name));
            recorded[application].push_back(route);
        }
        EXPECT_TRUE(topology->End());
    }

    bool BindTopic(const std::string& name, const std::string& queue = "normal")
    {
        return topology->Bind({queue, "exchange", name});
    }
    static std::string Name(std::size_t number) { return "topic." + std::to_string(number); }
    static std::vector<RouteRecord> Many(std::size_t count)
    {
        std::vector<RouteRecord> routes;
        for (std::size_t number = 0; number < count; ++number)
        {
            routes.push_back(Topic(Name(number)));
        }
        return routes;
    }
    /** As FakeTopologyPort::bound has them. */
    static std::set<std::string> Names(const std::vector<RouteRecord>& routes)
    {
        std::set<std::string> names;
        for (const RouteRecord& route : routes)
        {
            names.insert(route.queue + " " + route.name);
        }
        return names;
    }

    static std::filesystem::path MakeFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-topology-XXXXXX").string();
        return ::mkdtemp(pattern.data());
    }

    const std::filesystem::path folder = MakeFolder();
    RmqInfo info;
    Fakes::FakeTopologyPort port;
    std::optional<Journal> journal;
    std::optional<Topology> topology;
    std::map<std::string, std::vector<RouteRecord>> recorded;
};

using Asked = std::vector<std::string>;

TEST_F(TopologyTest, AFirstConfigurationAsksForEachRouteOnce)
{
    Configure("web", {Topic("a"), Topic("b", "urgent"), Queue("q")});
    EXPECT_EQ(port.asked, (Asked{"bind normal a", "bind urgent b", "consume q"}));
}

TEST_F(TopologyTest, AnUnchangedConfigurationAsksForNothing)
{
    Configure("web", {Topic("a"), Topic("b", "urgent"), Queue("q")});
    port.asked.clear();
    Configure("web", {Topic("a"), Topic("b", "urgent"), Queue("q")});
    EXPECT_EQ(port.asked, Asked());
}

TEST_F(TopologyTest, AReplacementAsksForTheDifferenceOnly)
{
    Configure("web", {Topic("a"), Topic("b"), Queue("q"), Queue("r")});
    port.asked.clear();
    Configure("web", {Topic("b"), Topic("c"), Queue("r"), Queue("s")});
    EXPECT_EQ(port.asked, (Asked{"unbind normal a", "stop q", "bind normal c", "consume s"}));
}

TEST_F(TopologyTest, ATopicThatChangesItsPriorityMoves)
{
    Configure("web", {Topic("a")});
    port.asked.clear();
    Configure("web", {Topic("a", "urgent")});
    EXPECT_EQ(port.asked, (Asked{"unbind normal a", "bind urgent a"}));
}

TEST_F(TopologyTest, ASharedBindingGoesWithItsLastUser)
{
    Configure("web", {Topic("a")});
    Configure("mail", {Topic("a")});
    port.asked.clear();
    Configure("web", {});
    EXPECT_EQ(port.asked, Asked());
    Configure("mail", {});
    EXPECT_EQ(port.asked, Asked{"unbind normal a"});
}

TEST_F(TopologyTest, AnUnbindFromTheQueueOfAnotherApplicationIsNotMade)
{
    Configure("web", {Topic("a")});
    Configure("mail", {Topic("a", "urgent")});
    port.asked.clear();
    // The routing registry has one entry for the shared topic, so the handler may name the other's queue.
    topology->Begin("web", {});
    EXPECT_TRUE(topology->Unbind({"urgent", "exchange", "a"}));
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked, Asked{"unbind normal a"});
    EXPECT_EQ(topology->QueueOf("a"), "urgent");
}

TEST_F(TopologyTest, AWithdrawnConfigurationLeavesNothing)
{
    Configure("web", {Topic("a"), Topic("b")});
    port.refused.insert("bind normal c");
    topology->Begin("web", {Topic("a"), Topic("b"), Topic("c")});
    EXPECT_TRUE(topology->Unbind({"normal", "exchange", "a"}));
    EXPECT_TRUE(topology->Bind({"normal", "exchange", "a"}));
    EXPECT_FALSE(topology->Bind({"normal", "exchange", "c"}));
    topology->Withdraw();
    EXPECT_TRUE(topology->Unbind({"normal", "exchange", "a"}));
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.bound, std::set<std::string>());
    EXPECT_EQ(topology->Bindings(), std::vector<Binding>());
    EXPECT_EQ(Restart(), std::vector<RouteRecord>());
}

TEST_F(TopologyTest, ABindWithoutAnswerThrowsAndIsRemovedAtTheEnd)
{
    port.unanswered.insert("bind normal a");
    topology->Begin("web", {Topic("a")});
    EXPECT_THROW(topology->Bind({"normal", "exchange", "a"}), RmqConnectionException);
    topology->Withdraw();
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked, (Asked{"bind normal a", "unbind normal a"}));
}

TEST_F(TopologyTest, ARefusedUnbindIsFalseAndStaysAnOrphanForTheNextProcess)
{
    Configure("web", {Topic("a")});
    port.refused.insert("unbind normal a");
    topology->Begin("web", {});
    EXPECT_FALSE(topology->Unbind({"normal", "exchange", "a"}));

    EXPECT_EQ(Restart(), std::vector<RouteRecord>());
    EXPECT_FALSE(topology->RemoveOrphans());
    port.refused.clear();
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(port.bound, std::set<std::string>());
    port.asked.clear();
    Restart();
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(port.asked, Asked());
}

TEST_F(TopologyTest, AnOrphanThatIsWantedAgainIsBoundAgain)
{
    Configure("web", {Topic("a")});
    port.refused.insert("unbind normal a");
    topology->Begin("web", {});
    EXPECT_FALSE(topology->Unbind({"normal", "exchange", "a"}));
    Restart();
    recorded.clear();
    port.asked.clear();
    Configure("web", {Topic("a")});
    EXPECT_EQ(port.asked, Asked{"bind normal a"});
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(port.bound, std::set<std::string>{"normal a"});
}

TEST_F(TopologyTest, ACancelWithoutAnswerIsDone)
{
    Configure("web", {Queue("q")});
    port.unanswered.insert("stop q");
    EXPECT_TRUE(topology->Cancel("q"));
    EXPECT_EQ(topology->Queues(), std::vector<std::string>());
}

TEST_F(TopologyTest, ACancelThatIsRefusedIsFalse)
{
    Configure("web", {Queue("q")});
    port.refused.insert("stop q");
    EXPECT_FALSE(topology->Cancel("q"));
}

TEST_F(TopologyTest, NamesOfTheAgentAndOfOthersAreRefused)
{
    Configure("mail", {Queue("theirs")});
    port.asked.clear();
    topology->Begin("web", {});
    for (const char* name : {"normal", "urgent", "normal.dead", "normal.parked.mail"})
    {
        EXPECT_FALSE(topology->Declare(name)) << name;
        EXPECT_FALSE(topology->Bind({"normal", "exchange", name})) << name;
    }
    EXPECT_FALSE(topology->Declare("theirs"));
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked, Asked());
    EXPECT_EQ(topology->Queues(), std::vector<std::string>{"theirs"});
}

TEST_F(TopologyTest, AFreshStartFindsTheRoutesInOrder)
{
    Configure("web", {Topic("b"), Topic("a", "urgent"), Queue("q")});
    const std::vector<RouteRecord> expected{
        {"web", RouteKind::topic, "b", "normal", RouteState::inForce},
        {"web", RouteKind::topic, "a", "urgent", RouteState::inForce},
        {"web", RouteKind::queue, "q", "", RouteState::inForce}};
    EXPECT_EQ(Restart(), expected);
    EXPECT_EQ(topology->Bindings().size(), 2U);
    EXPECT_EQ(topology->Queues(), std::vector<std::string>{"q"});
}

TEST_F(TopologyTest, RoutesOfAnApplicationThatIsGoneBecomeOrphans)
{
    Configure("web", {Topic("a"), Queue("q")});
    Configure("mail", {Topic("b")});
    port.asked.clear();
    EXPECT_EQ(Restart({"mail"}).size(), 1U);
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(port.asked, Asked{"unbind normal a"});
}

TEST_F(TopologyTest, AnApplicationThatWasGoneComesBackWithoutRoutes)
{
    Configure("web", {Topic("a"), Topic("shared"), Queue("q")});
    Configure("mail", {Topic("shared")});
    Restart({"mail"});
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(port.bound, std::set<std::string>{"normal shared"});
    const std::vector<RouteRecord> mails{{"mail", RouteKind::topic, "shared", "normal", RouteState::inForce}};
    EXPECT_EQ(journal->Load(), mails);
    EXPECT_EQ(Restart(), mails);
}

TEST_F(TopologyTest, AnApplicationThatWasGoneForOneStartOnlyComesBackWithoutRoutes)
{
    Configure("web", {Topic("a")});
    port.refused.insert("unbind normal a");
    Restart({"mail"});
    EXPECT_FALSE(topology->RemoveOrphans());
    EXPECT_EQ(Restart(), std::vector<RouteRecord>());
    port.refused.clear();
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(journal->Load(), std::vector<RouteRecord>());
}

/** The process dies after every possible number of requests of a replacement; then the configuration comes again. */
TEST_F(TopologyTest, AReplacementConvergesWhateverItsMomentOfDeath)
{
    const std::vector<RouteRecord> before{Topic("kept"), Topic("old1"), Topic("old2")};
    const std::vector<RouteRecord> after{Topic("kept"), Topic("new1"), Topic("new2")};
    for (std::size_t requests = 0; requests <= 4; ++requests)
    {
        Configure("web", before);
        topology->Begin("web", after);
        const std::vector<std::pair<bool, std::string>> steps{
            {false, "old1"}, {false, "old2"}, {true, "new1"}, {true, "new2"}};
        for (std::size_t step = 0; step < requests; ++step)
        {
            const Binding binding{"normal", "exchange", steps[step].second};
            EXPECT_TRUE(steps[step].first ? topology->Bind(binding) : topology->Unbind(binding));
        }
        recorded["web"] = Restart();
        EXPECT_TRUE(topology->RemoveOrphans());
        Configure("web", after);
        EXPECT_EQ(port.bound, (std::set<std::string>{"normal kept", "normal new1", "normal new2"})) << requests;
        EXPECT_EQ(topology->Bindings().size(), 3U) << requests;
    }
}

TEST_F(TopologyTest, TheFirstTopicTakesTheNextOnesAlongInTheirOrder)
{
    topology->Begin("web", {Topic("b"), Topic("a", "urgent"), Topic("c")});
    EXPECT_TRUE(BindTopic("b"));
    const Asked all{"bind normal b", "bind urgent a", "bind normal c"};
    EXPECT_EQ(port.asked, all);
    EXPECT_EQ(port.mostAtOnce, 3U);
    EXPECT_TRUE(BindTopic("a", "urgent"));
    EXPECT_TRUE(BindTopic("c"));
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked, all);
    EXPECT_EQ(Restart().size(), 3U);
}

TEST_F(TopologyTest, AHandlerWithAnOrderOfItsOwnAsksForEachOnce)
{
    topology->Begin("web", Many(Topology::MOST_AT_ONCE + 2));
    EXPECT_TRUE(BindTopic(Name(Topology::MOST_AT_ONCE + 1)));
    for (std::size_t number = Topology::MOST_AT_ONCE + 1; number-- > 0;)
    {
        EXPECT_TRUE(BindTopic(Name(number)));
    }
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked.size(), Topology::MOST_AT_ONCE + 2);
    EXPECT_EQ(port.bound.size(), Topology::MOST_AT_ONCE + 2);
}

TEST_F(TopologyTest, SoManyAreAskedForAtOnceAndNoMore)
{
    Configure("web", Many(2 * Topology::MOST_AT_ONCE + 1));
    EXPECT_EQ(port.mostAtOnce, Topology::MOST_AT_ONCE);
    EXPECT_EQ(port.asked.size(), 2 * Topology::MOST_AT_ONCE + 1);
    EXPECT_EQ(port.bound.size(), 2 * Topology::MOST_AT_ONCE + 1);
}

TEST_F(TopologyTest, WhatIsSharedOrReservedIsNotAskedForAhead)
{
    Configure("mail", {Topic("shared")});
    port.asked.clear();
    topology->Begin("web", {Topic("a"), Topic("shared"), Topic("normal.dead"), Topic("b")});
    EXPECT_TRUE(BindTopic("a"));
    EXPECT_TRUE(BindTopic("shared"));
    EXPECT_FALSE(BindTopic("normal.dead"));
    topology->Withdraw();
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked, (Asked{"bind normal a", "bind normal b", "unbind normal a", "unbind normal b"}));
    EXPECT_EQ(port.bound, std::set<std::string>{"normal shared"});
    EXPECT_EQ(
        journal->Load(),
        (std::vector<RouteRecord>{{"mail", RouteKind::topic, "shared", "normal", RouteState::inForce}}));
}

TEST_F(TopologyTest, ARefusalAheadIsHeardWhenTheHandlerComesToIt)
{
    port.refused.insert("bind normal b");
    topology->Begin("web", {Topic("a"), Topic("b"), Topic("c")});
    EXPECT_TRUE(BindTopic("a"));
    EXPECT_FALSE(BindTopic("b"));
    topology->Withdraw();
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(
        port.asked, (Asked{"bind normal a", "bind normal b", "bind normal c", "unbind normal a", "unbind normal c"}));
    EXPECT_EQ(journal->Load(), std::vector<RouteRecord>());
    port.refused.clear();
    Configure("web", {Topic("b")});
    EXPECT_EQ(port.bound, std::set<std::string>{"normal b"});
}

TEST_F(TopologyTest, ATopicWithoutAnAnswerAheadIsAskedForAgainAlone)
{
    port.unanswered.insert("bind normal " + Name(1));
    const std::vector<RouteRecord> wanted = Many(Topology::MOST_AT_ONCE + 2);
    topology->Begin("web", wanted);
    EXPECT_TRUE(BindTopic(Name(0)));
    EXPECT_EQ(port.asked.size(), Topology::MOST_AT_ONCE);
    EXPECT_THROW(BindTopic(Name(1)), RmqConnectionException);
    port.unanswered.clear();
    for (std::size_t number = 1; number < wanted.size(); ++number)
    {
        EXPECT_TRUE(BindTopic(Name(number)));
    }
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked.size(), wanted.size() + 2);
    EXPECT_EQ(port.bound.size(), wanted.size());
}

TEST_F(TopologyTest, WhatWasAskedForAheadAndMayBeThereGoesAtTheEnd)
{
    port.unanswered = {"bind normal a", "bind normal b"};
    port.onAsked = [this](const std::string& what)
    {
        if (what == "bind normal b")
        {
            port.bound.insert("normal b");
        }
    };
    topology->Begin("web", {Topic("a"), Topic("b"), Topic("c")});
    EXPECT_THROW(BindTopic("a"), RmqConnectionException);
    EXPECT_EQ(topology->Bindings().size(), 3U) << "a new connection restores what may be there";
    topology->Withdraw();
    EXPECT_THROW(BindTopic("a"), RmqConnectionException);
    EXPECT_EQ(port.asked.back(), "bind normal a") << "nothing is asked for ahead any more";
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.bound, std::set<std::string>());
    EXPECT_EQ(journal->Load(), std::vector<RouteRecord>());
}

TEST_F(TopologyTest, ABrokerThatDoesNotAnswerIsNotWaitedForAtEachTopicOfTheCleanUp)
{
    const std::vector<RouteRecord> wanted = Many(3);
    for (const RouteRecord& route : wanted)
    {
        port.unanswered.insert("bind normal " + route.name);
        port.unanswered.insert("unbind normal " + route.name);
        port.bound.insert("normal " + route.name);
    }
    topology->Begin("web", wanted);
    EXPECT_THROW(BindTopic(Name(0)), RmqConnectionException);
    topology->Withdraw();
    port.asked.clear();
    EXPECT_FALSE(topology->End());
    EXPECT_EQ(port.asked, Asked{"unbind normal " + Name(0)});
    EXPECT_EQ(topology->Bindings().size(), 0U);

    port.unanswered.clear();
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(port.bound, std::set<std::string>());
    EXPECT_EQ(journal->Load(), std::vector<RouteRecord>());
}

TEST_F(TopologyTest, WhatTheLastProcessDidNotComeToIsAskedForAtOnceToo)
{
    const std::vector<RouteRecord> wanted = Many(5);
    topology->Begin("web", wanted);
    Restart();
    Configure("web", wanted);
    EXPECT_EQ(port.mostAtOnce, wanted.size());
    EXPECT_EQ(port.bound, Names(wanted));
}

TEST_F(TopologyTest, AStopWhileTopicsAreAskedForLeavesThemToTheNextProcess)
{
    port.onAsked = [this](const std::string&) { topology->Freeze(); };
    topology->Begin("web", {Topic("a"), Topic("b")});
    EXPECT_TRUE(BindTopic("a"));
    EXPECT_THROW(BindTopic("b"), RmqConnectionException);
    topology->Withdraw();
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked, (Asked{"bind normal a", "bind normal b"}));
    port.onAsked = nullptr;
    recorded["web"] = Restart();
    Configure("web", {});
    EXPECT_EQ(port.bound, std::set<std::string>());
}

/** The process dies while several binds are under way, some of which the broker has carried out. */
TEST_F(TopologyTest, ADeathBeforeTheAnswersLeavesNothing)
{
    const std::vector<RouteRecord> before{Topic("kept"), Topic("old")};
    const std::vector<RouteRecord> after{Topic("kept"), Topic("new1"), Topic("new2"), Topic("new3")};
    for (const std::vector<RouteRecord>& next : {after, before, std::vector<RouteRecord>()})
    {
        for (std::size_t requests = 0; requests <= 3; ++requests)
        {
            Configure("web", before);
            port.onAsked = [left = requests](const std::string&) mutable
            {
                if (left-- == 0)
                {
                    throw std::runtime_error("dead");
                }
            };
            EXPECT_THROW(Configure("web", after), std::runtime_error) << requests;
            port.onAsked = nullptr;
            recorded["web"] = Restart();
            EXPECT_TRUE(topology->RemoveOrphans());
            Configure("web", next);
            EXPECT_EQ(port.bound, Names(next)) << requests;
            EXPECT_EQ(Restart().size(), next.size()) << requests;
        }
    }
}

TEST_F(TopologyTest, CountsBindingsByStateAndQueues)
{
    Configure("web", {Topic("a"), Topic("b", "urgent"), Queue("jobs")});
    const RouteCounts counts = topology->Counts();
    EXPECT_EQ(counts.bindings[static_cast<std::size_t>(RouteState::inForce)], 2U);
    EXPECT_EQ(counts.bindings[static_cast<std::size_t>(RouteState::leaving)], 0U);
    EXPECT_EQ(counts.queues, 1U);
}

TEST_F(TopologyTest, FindGivesAPageOfWhatMatchesByName)
{
    Configure("web", {Topic("news.2", "urgent"), Topic("news.1"), Topic("other"), Queue("news.jobs")});
    Configure("mail", {Topic("news.1")});
    const RoutePage page = topology->Find("news", 0, 2);
    EXPECT_EQ(page.total, 4U);
    EXPECT_EQ(page.matching, 3U);
    ASSERT_EQ(page.routes.size(), 2U);
    EXPECT_EQ(page.routes[0].name, "news.1");
    EXPECT_EQ(page.routes[0].applications, (std::vector<std::string>{"web", "mail"}));
    EXPECT_EQ(page.routes[1].queue, "urgent");
    const RoutePage next = topology->Find("news", 2, 2);
    ASSERT_EQ(next.routes.size(), 1U);
    EXPECT_EQ(next.routes[0].kind, RouteKind::queue);
}

TEST_F(TopologyTest, FindBeyondTheEndIsEmpty)
{
    Configure("web", {Topic("a")});
    EXPECT_EQ(topology->Find("", 5, 10).routes.size(), 0U);
    EXPECT_EQ(topology->Find("", 5, 10).matching, 1U);
    EXPECT_EQ(topology->Find("x", 0, 10).matching, 0U);
}

TEST_F(TopologyTest, RoutesAreFoundByTheApplicationThatUsesThem)
{
    Configure("web", {Topic("a"), Topic("b"), Queue("q")});
    Configure("mail", {Topic("b"), Topic("c")});
    const RoutePage page = topology->Find("", 0, 10, "mail");
    EXPECT_EQ(page.total, 4U);
    ASSERT_EQ(page.matching, 2U);
    EXPECT_EQ(page.routes[0].name, "b");
    EXPECT_EQ(page.routes[1].name, "c");
    EXPECT_EQ(topology->Find("a", 0, 10, "web").matching, 1U);
    EXPECT_EQ(topology->Find("", 0, 10, "nobody").matching, 0U);
}

TEST_F(TopologyTest, AFrozenTopologyAsksAndRecordsNothing)
{
    Configure("web", {Topic("a"), Queue("q")});
    port.asked.clear();
    topology->Freeze();
    topology->Begin("web", {});
    EXPECT_TRUE(topology->Unbind({"normal", "exchange", "a"}));
    EXPECT_TRUE(topology->Cancel("q"));
    EXPECT_THROW(topology->Bind({"normal", "exchange", "b"}), RmqConnectionException);
    EXPECT_THROW(topology->Declare("r"), RmqConnectionException);
    EXPECT_TRUE(topology->End());
    EXPECT_EQ(port.asked, Asked());
    EXPECT_EQ(Restart().size(), 2U);
}

} // namespace
} // namespace VtxQel

#include "common/QelException.h"
#include "core/HandlerTest.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

class CleanTopicFromApp : public HandlerTest
{
};

TEST_F(CleanTopicFromApp, AnApplicationWithoutTopicsIsClearedAllTheSame)
{
    const LogCapture log(7);
    EXPECT_TRUE(Clean());
    EXPECT_EQ(
        journal.Notes(), Strings(
                             {"handler.CleanTopicFromApp(app, normal, high, ex)", "apps.Lookup(app)",
                              "entry.GetTopics(app)", "entry.ClearTopics(app)"}));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(CleanTopicFromApp, AnUnknownApplicationIsLoggedAndNothingTouched)
{
    const LogCapture log(2);
    EXPECT_FALSE(Clean("stranger"));
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL106 Non register app stranger"}));
    EXPECT_EQ(journal.NotesOf({"entry.", "registry.", "broker."}), Strings());
}

TEST_F(CleanTopicFromApp, AnUnknownApplicationIsSilentBelowLevelTwo)
{
    const LogCapture log(1);
    EXPECT_FALSE(Clean("stranger"));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(CleanTopicFromApp, AnEntryThatIsNoApplicationIsUnknown)
{
    class Stranger : public RegistryEntry
    {
    };
    const LogCapture log(2);
    appRegistry->entries["stranger"] = boost::make_shared<Stranger>();
    EXPECT_FALSE(Clean("stranger"));
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL106 Non register app stranger"}));
}

TEST_F(CleanTopicFromApp, PerKeyTheRegistryIsAskedThenTheBrokerToldThenTheRouteRemoved)
{
    const LogCapture log(7);
    HaveRoute("t0", 2, 0);
    HaveRoute("t1", 2, 1);
    HaveRoute("q", 1, 0);
    EXPECT_TRUE(Clean());
    // Remove looks the key up itself.
    EXPECT_EQ(
        journal.NotesOf({"entry.", "registry.", "broker."}),
        Strings(
            {"entry.GetTopics(app)", "entry.ClearTopics(app)", "registry.Find(t0)",
             "broker.UnbindTopic(normal, ex, t0)", "registry.Remove(t0)", "registry.Find(t0)", "registry.Find(t1)",
             "broker.UnbindTopic(high, ex, t1)", "registry.Remove(t1)", "registry.Find(t1)", "registry.Find(q)",
             "broker.CancelQueue(q)", "registry.Remove(q)", "registry.Find(q)"}));
    EXPECT_EQ(app->topics, Strings());
    EXPECT_FALSE(routingRegistry->Stored("t0"));
    EXPECT_FALSE(routingRegistry->Stored("q"));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(CleanTopicFromApp, EveryPriorityButZeroIsUnboundFromThePriorityQueue)
{
    HaveRoute("t7", 2, 7);
    HaveRoute("t-1", 2, -1);
    EXPECT_TRUE(Clean());
    EXPECT_EQ(
        journal.NotesOf({"broker."}),
        Strings({"broker.UnbindTopic(high, ex, t7)", "broker.UnbindTopic(high, ex, t-1)"}));
}

TEST_F(CleanTopicFromApp, ARouteOfAnotherTypeIsOnlyRemoved)
{
    for (const int routeType : {0, 3, -1})
    {
        HaveRoute("other", routeType, 0);
        EXPECT_TRUE(Clean());
        EXPECT_FALSE(routingRegistry->Stored("other"));
    }
    EXPECT_EQ(journal.NotesOf({"broker."}), Strings());
}

TEST_F(CleanTopicFromApp, AKeyWithoutARouteIsSkippedSilently)
{
    const LogCapture log(7);
    app->topics.push_back("ghost");
    HaveRoute("t", 2, 0);
    EXPECT_TRUE(Clean());
    EXPECT_EQ(
        journal.NotesOf({"registry.", "broker."}),
        Strings(
            {"registry.Find(ghost)", "registry.Find(t)", "broker.UnbindTopic(normal, ex, t)", "registry.Remove(t)",
             "registry.Find(t)"}));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(CleanTopicFromApp, ARefusedCancelEndsItWithTheRestUntouched)
{
    const LogCapture log(2);
    HaveRoute("q1", 1, 0);
    HaveRoute("q2", 1, 0);
    HaveRoute("q3", 1, 0);
    rmqClient->answers.Refuse("broker.CancelQueue(q2)");
    EXPECT_FALSE(Clean());
    EXPECT_FALSE(routingRegistry->Stored("q1"));
    EXPECT_TRUE(routingRegistry->Stored("q2"));
    EXPECT_TRUE(routingRegistry->Stored("q3"));
    EXPECT_EQ(app->topics, Strings());
    EXPECT_EQ(journal.NotesOf({"broker."}), Strings({"broker.CancelQueue(q1)", "broker.CancelQueue(q2)"}));
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL101 Error Unbinding topics: Unable to cancel queue q2"}));
}

TEST_F(CleanTopicFromApp, ARouteThatVanishesBeforeItsRemovalEndsIt)
{
    const LogCapture log(2);
    HaveRoute("t", 2, 0);
    HaveRoute("t2", 2, 0);
    rmqClient->answers.On(
        "broker.UnbindTopic(normal, ex, t)", [this] { return routingRegistry->RoutingRegistry::Remove("t"); });
    EXPECT_FALSE(Clean());
    EXPECT_EQ(
        log.Lines(), Strings(
                         {"2 qel errorCode:QELERR_QEL_RMQ_DUPLICATE_KEY Removing non-existence routing key. t",
                          "2 qel errorCode:QEL101 Error Unbinding topics: Unable to remove topic (t) from registry"}));
    EXPECT_TRUE(routingRegistry->Stored("t2"));
}

TEST_F(CleanTopicFromApp, EveryBrokerExceptionIsCaughtAndLogged)
{
    LogCapture log(2);
    const Strings expected = {"2 qel errorCode:QEL101 Error Unbinding topics: why"};
    HaveRoute("t", 2, 0);
    rmqClient->answers.Throw("broker.UnbindTopic(normal, ex, t)", RmqConnectionException("why"));
    EXPECT_FALSE(Clean());
    EXPECT_EQ(log.Lines(), expected);
    log.Clear();
    app->topics = {"t"};
    rmqClient->answers.Throw("broker.UnbindTopic(normal, ex, t)", RmqMessageException("why"));
    EXPECT_FALSE(Clean());
    EXPECT_EQ(log.Lines(), expected);
    log.Clear();
    app->topics = {"t"};
    routingRegistry->answers.Throw("registry.Find(t)", RmqException("why"));
    EXPECT_FALSE(Clean());
    EXPECT_EQ(log.Lines(), expected);
}

TEST_F(CleanTopicFromApp, ABrokerExceptionIsSilentBelowLevelTwo)
{
    const LogCapture log(1);
    HaveRoute("q", 1, 0);
    rmqClient->answers.Refuse("broker.CancelQueue(q)");
    EXPECT_FALSE(Clean());
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(CleanTopicFromApp, OtherExceptionsPassThrough)
{
    const LogCapture log(7);
    HaveRoute("t", 2, 0);
    rmqClient->answers.Throw("broker.UnbindTopic(normal, ex, t)", QelScopeException("scope"));
    EXPECT_EQ(Thrown<QelScopeException>([this] { Clean(); }), "scope");
    app->topics = {"t"};
    rmqClient->answers.Throw("broker.UnbindTopic(normal, ex, t)", std::runtime_error("standard"));
    EXPECT_EQ(Thrown<std::runtime_error>([this] { Clean(); }), "standard");
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(CleanTopicFromApp, BeforeTheLoopNothingIsCaught)
{
    const LogCapture log(7);
    HaveRoute("t", 2, 0);
    for (const char* call : {"entry.GetTopics(app)", "entry.ClearTopics(app)"})
    {
        app->answers.Throw(call, RmqException("early"));
        EXPECT_EQ(Thrown<RmqException>([this] { Clean(); }), "early") << call;
        app->answers.On(call, [] { return true; });
    }
    appRegistry->answers.Throw("apps.Lookup(app)", RmqMessageException("early"));
    EXPECT_EQ(Thrown<RmqMessageException>([this] { Clean(); }), "early");
    EXPECT_EQ(log.Lines(), Strings());
    EXPECT_EQ(journal.NotesOf({"broker."}), Strings());
}

TEST_F(CleanTopicFromApp, TheListIsACopyThatLaterChangesDoNotReach)
{
    HaveRoute("t1", 2, 0);
    HaveRoute("t2", 2, 0);
    rmqClient->answers.On(
        "broker.UnbindTopic(normal, ex, t1)",
        [this]
        {
            app->topics = {"added", "meanwhile"};
            return true;
        });
    EXPECT_TRUE(Clean());
    EXPECT_EQ(
        journal.NotesOf({"broker."}),
        Strings({"broker.UnbindTopic(normal, ex, t1)", "broker.UnbindTopic(normal, ex, t2)"}));
}

TEST_F(CleanTopicFromApp, TheEntryIsHeldDuringTheBrokerCall)
{
    HaveRoute("t", 2, 0);
    const boost::weak_ptr<RoutingRegistryEntry> entry = routingRegistry->Stored("t");
    bool held = false;
    routingRegistry->answers.On(
        "registry.Remove(t)",
        [&]
        {
            routingRegistry->RoutingRegistry::Add("t", nullptr);
            held = !entry.expired();
            return false;
        });
    EXPECT_FALSE(Clean());
    EXPECT_TRUE(held);
    EXPECT_TRUE(entry.expired());
}

// A refused unbind ends the process. In these tests lines go to standard error, and what runs at exit reports there
// whether the registry can be used by another thread.
class Restart : public CleanTopicFromApp
{
  protected:
    void CleanWithRefusedUnbind(int level, int priority)
    {
        HaveRoute("t", 2, priority);
        HaveRoute("t2", 2, 0);
        for (const char* queue : {"normal", "high"})
        {
            rmqClient->answers.Refuse("broker.UnbindTopic(" + std::string(queue) + ", ex, t)");
        }
        vtx::SetLogSink([](const vtx::LogLine& line) { std::fprintf(stderr, "[%s]\n", Fakes::Show(line).c_str()); });
        vtx::Logger::logLevel = level;
        s_registry = routingRegistry.get();
        std::atexit(
            []
            {
                bool stillThere = false;
                std::thread([&stillThere] { stillThere = s_registry->Stored("t") && s_registry->Stored("t2"); }).join();
                std::fprintf(stderr, "[at exit: %s]\n", stillThere ? "registry unlocked, both routes left" : "lost");
            });
        Clean();
        std::fprintf(stderr, "[came back]\n");
    }

    static Fakes::FakeRoutingRegistry* s_registry;
};

Fakes::FakeRoutingRegistry* Restart::s_registry = nullptr;

using RestartDeathTest = Restart;

TEST_F(RestartDeathTest, ARefusedUnbindLogsTwoLinesAndExitsWithStatusZeroAndNoLockHeld)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        CleanWithRefusedUnbind(4, 0), testing::ExitedWithCode(0),
        testing::StrEq("[4 qel - Restarting the QEL due to unbind error:: ]\n"
                       "[4 qel - Unable to unbind topic (t) from client queue (normal)]\n"
                       "[at exit: registry unlocked, both routes left]\n"));
}

TEST_F(RestartDeathTest, TheLineNamesTheQueueOfTheTopicsPriority)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        CleanWithRefusedUnbind(7, 1), testing::ExitedWithCode(0),
        testing::StrEq("[4 qel - Restarting the QEL due to unbind error:: ]\n"
                       "[4 qel - Unable to unbind topic (t) from client queue (high)]\n"
                       "[at exit: registry unlocked, both routes left]\n"));
}

TEST_F(RestartDeathTest, AtLevelThreeItExitsWithoutALine)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        CleanWithRefusedUnbind(3, 0), testing::ExitedWithCode(0),
        testing::StrEq("[at exit: registry unlocked, both routes left]\n"));
}

TEST_F(RestartDeathTest, EachLineTestsTheLevelForItself)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            HaveRoute("t", 2, 0);
            rmqClient->answers.Refuse("broker.UnbindTopic(normal, ex, t)");
            vtx::Logger::logLevel = 4;
            vtx::SetLogSink(
                [](const vtx::LogLine& line)
                {
                    std::fprintf(stderr, "[%s]\n", Fakes::Show(line).c_str());
                    vtx::Logger::logLevel = 3;
                });
            Clean();
        },
        testing::ExitedWithCode(0), testing::StrEq("[4 qel - Restarting the QEL due to unbind error:: ]\n"));
}

} // namespace
} // namespace VtxQel

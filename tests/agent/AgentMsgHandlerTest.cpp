#include "agent/AgentMsgHandler.h"

#include "agent/ConfigurationSize.h"
#include "apps/LocalAppRegistry.h"
#include "common/MessageTypes.h"
#include "common/QelException.h"
#include "fakes/FakeAppDispatcher.h"
#include "fakes/FakeRmqMessage.h"
#include "fakes/FakeTopologyPort.h"
#include "fakes/TopologyClient.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace VtxQel
{
namespace
{

using brelix::vtx::messaging::appinit::AppInitConfigMsg;
using Asked = std::vector<std::string>;

class AgentMsgHandlerTest : public testing::Test
{
  protected:
    AgentMsgHandlerTest()
    {
        info->exchange = "exchange";
        info->clientQueue = "normal";
        info->priorityQueue = "urgent";
        info->deadLetterQueue = "normal.dead";
        appRegistry->Reload({"web", "mail"});
        Start();
    }
    ~AgentMsgHandlerTest() override { std::filesystem::remove_all(folder); }

    /** A new process on the same journal. */
    void Start()
    {
        handler.reset();
        topology.reset();
        journal.reset();
        journal.emplace((folder / "journal").string());
        topology.emplace(port, *journal, *info);
        subscriptions.emplace(info->clientQueue, info->priorityQueue, true);
        log.emplace((folder / "configurations.json").string());
        client = boost::make_shared<Fakes::TopologyClient>(*topology);
        handler = boost::make_shared<AgentMsgHandler>(
            HandlerCollaborators{registry, appRegistry, dispatcher, client, info, endpoint},
            ConfigurationKeepers{*topology, *subscriptions, *log},
            ConfigurationEvents{[this](const std::string& name) { failed.push_back(name); }, [this] { ++orphaned; }});
        for (const std::string& queue : {info->clientQueue, info->priorityQueue})
        {
            registry->Add(
                queue, boost::make_shared<RoutingRegistryEntry>(handler, 0, static_cast<channelPriority_e>(0)));
        }
    }

    static AppInitConfigMsg Config(
        const std::vector<std::pair<std::string, unsigned>>& topics, const std::vector<std::string>& queues = {})
    {
        AppInitConfigMsg config;
        for (const auto& [topic, priority] : topics)
        {
            config.add_topic_info()->set_topic(topic);
            config.mutable_topic_info()->rbegin()->set_priority(priority);
        }
        for (const std::string& queue : queues)
        {
            config.add_queue_name(queue);
        }
        return config;
    }
    boost::shared_ptr<Fakes::FakeRmqMessage> Message(const std::string& application, const std::string& body)
    {
        auto message = boost::make_shared<Fakes::FakeRmqMessage>(notes, std::string(APP_INIT_CONFIG_TYPE), body);
        message->appName = application;
        return message;
    }
    bool Configure(const std::string& application, const AppInitConfigMsg& config)
    {
        port.asked.clear();
        return handler->Callback(Message(application, config.SerializeAsString()));
    }
    std::vector<std::string> TopicsOf(const std::string& application)
    {
        return boost::dynamic_pointer_cast<AppRegistryEntry>(appRegistry->Lookup(application))->GetTopics();
    }
    std::vector<std::string> ReceiversOf(const std::string& queue, const std::string& key)
    {
        return subscriptions->Resolve(queue, key).applications;
    }

    static std::filesystem::path MakeFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-handler-XXXXXX").string();
        return ::mkdtemp(pattern.data());
    }

    const std::filesystem::path folder = MakeFolder();
    Fakes::Journal notes;
    Fakes::FakeTopologyPort port;
    const boost::shared_ptr<RmqInfo> info = boost::make_shared<RmqInfo>();
    const boost::shared_ptr<RoutingRegistry> registry = boost::make_shared<RoutingRegistry>();
    const boost::shared_ptr<LocalAppRegistry> appRegistry = boost::make_shared<LocalAppRegistry>();
    const boost::shared_ptr<Fakes::FakeAppDispatcher> dispatcher = boost::make_shared<Fakes::FakeAppDispatcher>(notes);
    const boost::shared_ptr<EndpointController> endpoint;
    std::optional<Journal> journal;
    std::optional<Topology> topology;
    std::optional<Subscriptions> subscriptions;
    std::optional<ConfigurationLog> log;
    boost::shared_ptr<Fakes::TopologyClient> client;
    boost::shared_ptr<AgentMsgHandler> handler;
    std::vector<std::string> failed;
    int orphaned = 0;
};

TEST_F(AgentMsgHandlerTest, AConfigurationIsInForceEverywhere)
{
    EXPECT_TRUE(Configure("web", Config({{"a", 0}, {"b", 1}}, {"q"})));
    EXPECT_EQ(port.asked, (Asked{"bind normal a", "bind urgent b", "consume q"}));
    EXPECT_EQ(TopicsOf("web"), (Asked{"a", "b", "q"}));
    EXPECT_EQ(ReceiversOf("normal", "a"), Asked{"web"});
    EXPECT_EQ(ReceiversOf("urgent", "b"), Asked{"web"});
    EXPECT_EQ(ReceiversOf("q", "anything"), Asked{"web"});
    EXPECT_EQ(registry->Find("q")->routeType, 1);
    EXPECT_EQ(subscriptions->Status("web").state, ConfigurationState::applied);
}

TEST_F(AgentMsgHandlerTest, AReplacementReachesTheBrokerAsADifference)
{
    ASSERT_TRUE(Configure("web", Config({{"a", 0}, {"b", 0}}, {"q"})));
    EXPECT_TRUE(Configure("web", Config({{"b", 0}, {"c", 0}}, {"q"})));
    EXPECT_EQ(port.asked, (Asked{"unbind normal a", "bind normal c"}));
    EXPECT_EQ(registry->Find("a"), nullptr);
    EXPECT_EQ(ReceiversOf("normal", "a"), Asked());
    EXPECT_EQ(TopicsOf("web"), (Asked{"b", "c", "q"}));
}

TEST_F(AgentMsgHandlerTest, AKeptTopicHasItsReceiverAllTheTime)
{
    ASSERT_TRUE(Configure("web", Config({{"kept", 0}, {"old", 0}})));
    std::vector<Asked> seen;
    port.onAsked = [this, &seen](const std::string&) { seen.push_back(ReceiversOf("normal", "kept")); };
    EXPECT_TRUE(Configure("web", Config({{"new", 0}, {"kept", 0}})));
    EXPECT_EQ(seen, (std::vector<Asked>{{"web"}, {"web"}}));
}

TEST_F(AgentMsgHandlerTest, ABodyThatDoesNotParseLeavesTheOldConfiguration)
{
    ASSERT_TRUE(Configure("web", Config({{"a", 0}})));
    port.asked.clear();
    EXPECT_FALSE(handler->Callback(Message("web", "\xff\xff")));
    EXPECT_EQ(port.asked, Asked());
    EXPECT_EQ(ReceiversOf("normal", "a"), Asked{"web"});
    EXPECT_EQ(failed, Asked());
}

TEST_F(AgentMsgHandlerTest, ABodyOverTheLimitsLeavesTheOldConfiguration)
{
    ASSERT_TRUE(Configure("web", Config({{"news", 0}})));
    AppInitConfigMsg many;
    for (std::size_t i = 0; i <= MOST_CONFIGURATION_ENTRIES; ++i)
    {
        many.add_queue_name();
    }
    EXPECT_FALSE(Configure("web", many));
    EXPECT_FALSE(Configure("web", Config({{std::string(MOST_CONFIGURATION_BYTES, 't'), 0}})));
    EXPECT_EQ(TopicsOf("web"), Asked{"news"});
    EXPECT_EQ(port.asked, Asked());
}

TEST_F(AgentMsgHandlerTest, AnUnknownApplicationIsRefused)
{
    EXPECT_FALSE(Configure("stranger", Config({{"a", 0}})));
    EXPECT_EQ(port.asked, Asked());
    EXPECT_EQ(registry->Find("a"), nullptr);
}

TEST_F(AgentMsgHandlerTest, AFailedConfigurationLeavesNothingAndIsAskedForAgain)
{
    ASSERT_TRUE(Configure("web", Config({{"a", 0}, {"b", 0}})));
    port.refused.insert("bind normal d");
    EXPECT_FALSE(Configure("web", Config({{"b", 0}, {"c", 0}, {"d", 0}, {"e", 0}})));
    EXPECT_EQ(port.bound, std::set<std::string>());
    EXPECT_EQ(TopicsOf("web"), Asked());
    for (const char* topic : {"a", "b", "c", "d", "e"})
    {
        EXPECT_EQ(registry->Find(topic), nullptr) << topic;
        EXPECT_EQ(ReceiversOf("normal", topic), Asked()) << topic;
    }
    EXPECT_EQ(subscriptions->Status("web").state, ConfigurationState::failed);
    EXPECT_EQ(subscriptions->Status("web").error, "Bind fail on app: web for topic: d to queue normal");
    EXPECT_EQ(failed, Asked{"web"});
}

TEST_F(AgentMsgHandlerTest, ABindWithoutAnswerPassesThroughAndLeavesNothing)
{
    port.unanswered.insert("bind normal b");
    EXPECT_THROW(Configure("web", Config({{"a", 0}, {"b", 0}})), RmqConnectionException);
    EXPECT_EQ(port.bound, std::set<std::string>());
    EXPECT_EQ(topology->Bindings(), std::vector<Binding>());
}

TEST_F(AgentMsgHandlerTest, WhatTheCleanUpCouldNotRemoveIsTold)
{
    port.unanswered = {"bind normal b", "unbind normal b"};
    EXPECT_THROW(Configure("web", Config({{"b", 0}})), RmqConnectionException);
    EXPECT_EQ(orphaned, 1);
    EXPECT_EQ(failed, Asked{"web"});
    port.unanswered.clear();
    EXPECT_TRUE(topology->RemoveOrphans());
    EXPECT_EQ(port.bound, std::set<std::string>());
}

TEST_F(AgentMsgHandlerTest, ASharedTopicSurvivesTheOtherApplication)
{
    ASSERT_TRUE(Configure("web", Config({{"shared", 0}, {"own", 0}})));
    ASSERT_TRUE(Configure("mail", Config({{"shared", 0}})));
    EXPECT_EQ(ReceiversOf("normal", "shared"), (Asked{"web", "mail"}));
    EXPECT_TRUE(Configure("web", Config({})));
    EXPECT_EQ(port.asked, Asked{"unbind normal own"});
    EXPECT_EQ(ReceiversOf("normal", "shared"), Asked{"mail"});
    EXPECT_NE(registry->Find("shared"), nullptr);
    EXPECT_TRUE(Configure("mail", Config({})));
    EXPECT_EQ(port.asked, Asked{"unbind normal shared"});
    EXPECT_EQ(registry->Find("shared"), nullptr);
}

TEST_F(AgentMsgHandlerTest, ATopicSharedAtDifferentPrioritiesLosesOnlyItsOwnBinding)
{
    ASSERT_TRUE(Configure("web", Config({{"shared", 0}})));
    ASSERT_TRUE(Configure("mail", Config({{"shared", 1}})));
    EXPECT_TRUE(Configure("web", Config({})));
    EXPECT_EQ(port.bound, std::set<std::string>{"urgent shared"});
    EXPECT_EQ(registry->Find("shared")->priority, 1);
    EXPECT_TRUE(Configure("mail", Config({})));
    EXPECT_EQ(port.bound, std::set<std::string>());
}

TEST_F(AgentMsgHandlerTest, ATopicListedTwiceIsBoundWhereItStandsLast)
{
    EXPECT_TRUE(Configure("web", Config({{"a", 0}, {"a", 1}})));
    EXPECT_EQ(port.bound, std::set<std::string>{"urgent a"});
    EXPECT_EQ(ReceiversOf("urgent", "a"), Asked{"web"});
    EXPECT_TRUE(Configure("web", Config({})));
    EXPECT_EQ(port.bound, std::set<std::string>());
}

TEST_F(AgentMsgHandlerTest, TopicsAreAskedForTogetherInTheConfigurationsOrder)
{
    EXPECT_TRUE(Configure("web", Config({{"c", 0}, {"a", 0}, {"b", 1}})));
    EXPECT_EQ(port.asked, (Asked{"bind normal c", "bind normal a", "bind urgent b"}));
    EXPECT_EQ(port.mostAtOnce, 3U);
}

TEST_F(AgentMsgHandlerTest, AnApplicationCannotTakeOverAQueue)
{
    ASSERT_TRUE(Configure("mail", Config({}, {"theirs"})));
    EXPECT_FALSE(Configure("web", Config({}, {"theirs"})));
    EXPECT_EQ(subscriptions->Status("web").error, "Declare queue fail on app: web for queue: theirs");
    EXPECT_FALSE(Configure("web", Config({{"normal", 0}})));
    EXPECT_EQ(registry->Find("normal")->handler, handler);
    EXPECT_EQ(ReceiversOf("theirs", ""), Asked{"mail"});
}

TEST_F(AgentMsgHandlerTest, AStopInTheMiddleLeavesEverythingToTheNextProcess)
{
    ASSERT_TRUE(Configure("web", Config({{"kept", 0}, {"old", 0}})));
    port.onAsked = [this](const std::string& what)
    {
        if (what == "unbind normal old")
        {
            topology->Freeze();
        }
    };
    EXPECT_THROW(Configure("web", Config({{"kept", 0}, {"new", 0}})), RmqConnectionException);
    EXPECT_EQ(port.asked, Asked{"unbind normal old"});
    EXPECT_EQ(ReceiversOf("normal", "kept"), Asked{"web"});
    EXPECT_EQ(failed, Asked());

    port.onAsked = nullptr;
    appRegistry->Reload({});
    appRegistry->Reload({"web", "mail"});
    Start();
    handler->Restore(topology->Restore([](const std::string&) { return true; }));
    EXPECT_EQ(ReceiversOf("normal", "kept"), Asked{"web"});
    EXPECT_TRUE(Configure("web", Config({{"kept", 0}, {"new", 0}})));
    EXPECT_EQ(port.bound, (std::set<std::string>{"normal kept", "normal new"}));
}

TEST_F(AgentMsgHandlerTest, RestoredRoutesAreAsIfTheyHadBeenConfigured)
{
    ASSERT_TRUE(Configure("web", Config({{"a", 0}, {"b", 1}}, {"q"})));
    const Asked recorded = TopicsOf("web");
    appRegistry->Reload({});
    appRegistry->Reload({"web", "mail"});
    Start();
    handler->Restore(topology->Restore([](const std::string&) { return true; }));
    EXPECT_EQ(TopicsOf("web"), recorded);
    EXPECT_EQ(registry->Find("b")->priority, 1);
    EXPECT_EQ(registry->Find("q")->routeType, 1);
    EXPECT_EQ(subscriptions->Status("web").state, ConfigurationState::applied);
    EXPECT_TRUE(Configure("web", Config({{"a", 0}, {"b", 1}}, {"q"})));
    EXPECT_EQ(port.asked, Asked());
}

TEST_F(AgentMsgHandlerTest, AForgottenApplicationLeavesNothingButWhatOthersShare)
{
    ASSERT_TRUE(Configure("web", Config({{"shared", 0}, {"own", 0}}, {"q"})));
    ASSERT_TRUE(Configure("mail", Config({{"shared", 0}})));
    appRegistry->Reload({"mail"});
    port.asked.clear();
    handler->Forget("web");
    EXPECT_EQ(port.asked, (Asked{"unbind normal own", "stop q"}));
    EXPECT_EQ(registry->Find("own"), nullptr);
    EXPECT_EQ(registry->Find("q"), nullptr);
    EXPECT_NE(registry->Find("shared"), nullptr);
    EXPECT_EQ(ReceiversOf("normal", "shared"), Asked{"mail"});
}

TEST_F(AgentMsgHandlerTest, EachConfigurationIsLoggedWithItsRoutesOrItsError)
{
    EXPECT_TRUE(Configure("web", Config({{"a", 0}, {"b", 1}}, {"jobs"})));
    EXPECT_FALSE(handler->Callback(Message("web", "\xff\xff")));
    EXPECT_FALSE(Configure("nobody", Config({{"a", 0}})));
    const ConfigurationTotals totals = log->Totals();
    EXPECT_EQ(totals.applied, 1U);
    ASSERT_EQ(totals.recent.size(), 3U);
    EXPECT_EQ(totals.recent[0].error, "there is no such application");
    EXPECT_EQ(totals.recent[1].error, "the body is no configuration");
    EXPECT_EQ(totals.recent[2].topics, 2U);
    EXPECT_EQ(totals.recent[2].queues, 1U);
    EXPECT_EQ(log->Of("web", "applied").hash, totals.recent[2].hash);
}

TEST_F(AgentMsgHandlerTest, AfterARestartTheHashBelongsToTheRestoredRoutes)
{
    Configure("web", Config({{"a", 0}, {"b", 1}, {"a", 1}}, {"jobs"}));
    const std::string hash = log->Of("web", "applied").hash;
    Start();
    handler->Restore(topology->Restore([](const std::string&) { return true; }));
    EXPECT_EQ(log->Of("web", "applied").hash, hash);
    EXPECT_NE(hash, "");
}

} // namespace
} // namespace VtxQel

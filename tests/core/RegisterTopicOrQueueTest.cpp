#include "common/QelException.h"
#include "core/HandlerTest.h"

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

class RegisterTopicOrQueue : public HandlerTest
{
  protected:
    void AddTopic(const std::string& topic, std::uint32_t priority = 0)
    {
        auto* info = config.add_topic_info();
        info->set_topic(topic);
        info->set_priority(priority);
    }

    AppInitConfigMsg config;
};

TEST_F(RegisterTopicOrQueue, AnEmptyConfigurationDoesNothing)
{
    const LogCapture log(7);
    Register(config);
    EXPECT_EQ(journal.Notes(), Strings({"handler.RegisterTopicOrQueue(app, normal, high, ex)"}));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(RegisterTopicOrQueue, TopicsThenQueuesEachLoggedThenOnTheBrokerThenInTheRegistry)
{
    const LogCapture log(5, &journal);
    config.add_queue_name("q1");
    config.add_queue_name("q2");
    AddTopic("t1", 0);
    AddTopic("t2", 3);
    handler.onRoutingTopic = handler.onRoutingQueue = [] { return true; };
    Register(config);
    EXPECT_EQ(
        journal.Notes(),
        Strings(
            {"handler.RegisterTopicOrQueue(app, normal, high, ex)",
             "log: 5 qel - AppInitConfig for (TOPIC). appName:app, topic:t1 (0), (queue:normal, ex:ex)",
             "broker.BindTopic(normal, ex, t1)", "handler.RegisterRoutingTopic(app, t1, normal, 0)",
             "log: 5 qel - AppInitConfig for (TOPIC). appName:app, topic:t2 (3), (queue:high, ex:ex)",
             "broker.BindTopic(high, ex, t2)", "handler.RegisterRoutingTopic(app, t2, high, 1)",
             "log: 5 qel - AppInitConfig for (QUEUE). appName:app, topic:q1, (queue:normal, ex:ex)",
             "broker.DeclareQueue(q1)", "handler.RegisterRoutingQueue(app, q1, normal, 0)",
             "log: 5 qel - AppInitConfig for (QUEUE). appName:app, topic:q2, (queue:normal, ex:ex)",
             "broker.DeclareQueue(q2)", "handler.RegisterRoutingQueue(app, q2, normal, 0)"}));
}

TEST_F(RegisterTopicOrQueue, ThePriorityIsLoggedUnsigned)
{
    const LogCapture log(5);
    AddTopic("t", 4294967295U);
    Register(config);
    EXPECT_EQ(
        log.Lines(),
        Strings({"5 qel - AppInitConfig for (TOPIC). appName:app, topic:t (4294967295), (queue:high, ex:ex)"}));
}

TEST_F(RegisterTopicOrQueue, AtLevelFourItLogsNothing)
{
    const LogCapture log(4);
    AddTopic("t");
    config.add_queue_name("q");
    Register(config);
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(RegisterTopicOrQueue, EveryPriorityButZeroIsTheHighOne)
{
    AddTopic("t0", 0);
    AddTopic("t1", 1);
    AddTopic("t7", 7);
    Register(config);
    EXPECT_EQ(routingRegistry->Stored("t0")->priority, 0);
    EXPECT_EQ(routingRegistry->Stored("t0")->handler, normalHandler);
    EXPECT_EQ(routingRegistry->Stored("t1")->priority, 1);
    EXPECT_EQ(routingRegistry->Stored("t7")->priority, 1);
    EXPECT_EQ(routingRegistry->Stored("t7")->handler, highHandler);
}

TEST_F(RegisterTopicOrQueue, ARefusedBindStopsItAndUndoesNothing)
{
    AddTopic("t1");
    AddTopic("t2", 1);
    AddTopic("t3");
    config.add_queue_name("q");
    rmqClient->answers.Refuse("broker.BindTopic(high, ex, t2)");
    EXPECT_EQ(
        Thrown<RmqMessageException>([&] { Register(config); }), "Bind fail on app: app for topic: t2 to queue high");
    EXPECT_EQ(
        journal.NotesOf({"broker."}), Strings({"broker.BindTopic(normal, ex, t1)", "broker.BindTopic(high, ex, t2)"}));
    EXPECT_TRUE(routingRegistry->Stored("t1"));
    EXPECT_FALSE(routingRegistry->Stored("t2"));
    EXPECT_EQ(app->topics, Strings({"t1"}));
}

TEST_F(RegisterTopicOrQueue, ARefusedTopicRouteStopsItAndLeavesTheBinding)
{
    AddTopic("t1", 2);
    AddTopic("t2");
    handler.onRoutingTopic = [] { return false; };
    EXPECT_EQ(
        Thrown<RmqMessageException>([&] { Register(config); }),
        "Register Topic fail on app: app for topic t1 to queue high");
    EXPECT_EQ(journal.NotesOf({"broker."}), Strings({"broker.BindTopic(high, ex, t1)"}));
}

TEST_F(RegisterTopicOrQueue, ARefusedDeclareComesAfterAllTopics)
{
    AddTopic("t1");
    AddTopic("t2");
    config.add_queue_name("q1");
    config.add_queue_name("q2");
    rmqClient->answers.Refuse("broker.DeclareQueue(q1)");
    EXPECT_EQ(Thrown<RmqMessageException>([&] { Register(config); }), "Declare queue fail on app: app for queue: q1");
    EXPECT_TRUE(routingRegistry->Stored("t1"));
    EXPECT_TRUE(routingRegistry->Stored("t2"));
    EXPECT_FALSE(routingRegistry->Stored("q1"));
    EXPECT_EQ(journal.NotesOf({"broker.D"}), Strings({"broker.DeclareQueue(q1)"}));
}

TEST_F(RegisterTopicOrQueue, ARefusedQueueRouteStopsItAndLeavesTheQueue)
{
    config.add_queue_name("q1");
    config.add_queue_name("q2");
    handler.onRoutingQueue = [] { return false; };
    EXPECT_EQ(Thrown<RmqMessageException>([&] { Register(config); }), "Register queue fail on app: app for queue: q1");
    EXPECT_EQ(journal.NotesOf({"broker."}), Strings({"broker.DeclareQueue(q1)"}));
}

TEST_F(RegisterTopicOrQueue, FailuresAreNotLogged)
{
    const LogCapture log(4);
    AddTopic("t1");
    rmqClient->answers.Refuse("broker.BindTopic(normal, ex, t1)");
    EXPECT_THROW(Register(config), RmqMessageException);
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(RegisterTopicOrQueue, AnUnknownApplicationIsNoticedOnlyAfterTheFirstBinding)
{
    AddTopic("t1");
    AddTopic("t2");
    EXPECT_EQ(
        Thrown<RmqMessageException>([&] { Register(config, "stranger"); }),
        "Unable to located app: stranger for app init");
    EXPECT_EQ(journal.NotesOf({"broker."}), Strings({"broker.BindTopic(normal, ex, t1)"}));
}

TEST_F(RegisterTopicOrQueue, WhatTheBrokerClientThrowsPassesThrough)
{
    AddTopic("t1");
    rmqClient->answers.Throw("broker.BindTopic(normal, ex, t1)", RmqConnectionException("away"));
    EXPECT_EQ(Thrown<RmqConnectionException>([&] { Register(config); }), "away");
}

TEST_F(RegisterTopicOrQueue, AnEntryAtWorkIsACopy)
{
    AddTopic("t1");
    handler.onRoutingTopic = [this]
    {
        config.mutable_topic_info(0)->set_topic("changed");
        return false;
    };
    EXPECT_EQ(
        Thrown<RmqMessageException>([&] { Register(config); }),
        "Register Topic fail on app: app for topic t1 to queue normal");
}

} // namespace
} // namespace VtxQel

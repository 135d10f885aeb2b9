#include "apps/LocalAppDispatcher.h"

#include "apps/AppsFakes.h"
#include "fakes/FakeRmqMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class LocalAppDispatcherTest : public testing::Test
{
  protected:
    LocalAppDispatcherTest()
    {
        m_applications.Reload({SettingsOf("one"), SettingsOf("two")});
        for (const char* name : {"one", "two"})
        {
            const auto application = m_applications.Find(name);
            m_sessions[name] = boost::make_shared<FakeSession>();
            application->Attach(m_sessions[name], 0);
            application->MarkerReturned(m_parking.LastMarker());
        }
    }
    /** Dispatches and keeps the message for Expected(). */
    bool Dispatch(FakeMessage message)
    {
        m_last = boost::make_shared<FakeDelivery>(m_log, std::move(message));
        return m_dispatcher.Dispatch(m_last);
    }
    std::vector<std::string> Got(const std::string& application) { return m_sessions[application]->TakeBodies(); }

    AnswerLog m_log;
    HoldBudget m_budget{1000, 1000000};
    FakeParkingQueues m_parking;
    FakeTimers m_timers;
    ApplicationSet m_applications{
        ApplicationContext{m_budget, m_parking, m_timers, std::chrono::milliseconds(250), {}}};
    Subscriptions m_subscriptions{"client", "urgent", true};
    LocalAppDispatcher m_dispatcher{m_applications, m_subscriptions};
    std::map<std::string, boost::shared_ptr<FakeSession>> m_sessions;
    boost::shared_ptr<FakeDelivery> m_last;
};

TEST_F(LocalAppDispatcherTest, WhatIsNoDeliveryIsRefused)
{
    Fakes::Journal journal;
    EXPECT_FALSE(m_dispatcher.Dispatch(boost::make_shared<Fakes::FakeRmqMessage>(journal)));
    EXPECT_FALSE(m_dispatcher.Dispatch(nullptr));
}

TEST_F(LocalAppDispatcherTest, TheAppIdNamesTheReceiver)
{
    m_subscriptions.AddTopic("two", "k", "client");
    FakeMessage message{.body = "a", .routingKey = "k"};
    message.properties.appId = "one";
    EXPECT_TRUE(Dispatch(message));
    EXPECT_THAT(m_last->Expected(), ElementsAre("one"));
    EXPECT_THAT(Got("one"), ElementsAre("a"));
    EXPECT_THAT(Got("two"), IsEmpty());
}

TEST_F(LocalAppDispatcherTest, AnAppIdOfSomebodyElseDoesNotMatter)
{
    m_subscriptions.AddTopic("two", "k", "client");
    FakeMessage message{.body = "a", .routingKey = "k"};
    message.properties.appId = "the publisher";
    EXPECT_TRUE(Dispatch(message));
    EXPECT_THAT(Got("two"), ElementsAre("a"));
}

TEST_F(LocalAppDispatcherTest, EverySubscriberGetsACopyAndAnswersForItself)
{
    m_subscriptions.AddTopic("one", "k", "client");
    m_subscriptions.AddTopic("two", "#", "client");
    EXPECT_TRUE(Dispatch({.body = "a", .routingKey = "k"}));
    EXPECT_THAT(m_last->Expected(), UnorderedElementsAre("one", "two"));
    EXPECT_THAT(Got("one"), ElementsAre("a"));
    EXPECT_THAT(Got("two"), ElementsAre("a"));
}

TEST_F(LocalAppDispatcherTest, AnApplicationsQueueIsForItsOwner)
{
    m_subscriptions.AddQueue("two", "q");
    EXPECT_TRUE(Dispatch({.body = "a", .queue = "q", .routingKey = "q"}));
    EXPECT_THAT(Got("two"), ElementsAre("a"));
}

TEST_F(LocalAppDispatcherTest, AMessageForNobodyIsRefused)
{
    EXPECT_FALSE(Dispatch({.body = "a", .routingKey = "k"}));
    EXPECT_THAT(m_last->Expected(), IsEmpty());
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(LocalAppDispatcherTest, ASubscriberThatIsNoLongerConfiguredIsNobody)
{
    m_subscriptions.AddTopic("gone", "k", "client");
    EXPECT_FALSE(Dispatch({.body = "a", .routingKey = "k"}));
}

TEST_F(LocalAppDispatcherTest, ACopyServedByThePriorityQueueIsDoneWithoutReceivers)
{
    m_subscriptions.AddTopic("one", "k", "client");
    m_subscriptions.AddTopic("one", "#", "urgent");
    EXPECT_TRUE(Dispatch({.body = "a", .routingKey = "k"}));
    EXPECT_THAT(m_last->Expected(), IsEmpty());
    EXPECT_THAT(Got("one"), IsEmpty());
}

TEST_F(LocalAppDispatcherTest, AConfigurationIsNotForTheApplication)
{
    FakeMessage message{.body = "a"};
    message.properties.appId = "one";
    message.properties.type = "com.brelix.vtx.messaging.appinit.AppInitConfigMsg";
    EXPECT_TRUE(Dispatch(message));
    EXPECT_THAT(m_last->Expected(), IsEmpty());
    EXPECT_THAT(Got("one"), IsEmpty());
}

TEST_F(LocalAppDispatcherTest, AParkedMessageIsForWhomItWasParked)
{
    FakeMessage message{.body = "a", .queue = "client.parked.two", .parkedFor = "two"};
    message.properties.appId = "one";
    EXPECT_TRUE(Dispatch(message));
    EXPECT_THAT(m_last->Expected(), ElementsAre("two"));
    EXPECT_THAT(Got("two"), ElementsAre("a"));
}

TEST_F(LocalAppDispatcherTest, AParkedMessageOfNobodyIsLeftToTheBroker)
{
    EXPECT_TRUE(Dispatch({.body = "a", .parkedFor = "gone"}));
    EXPECT_THAT(m_last->Expected(), ElementsAre("gone"));
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(LocalAppDispatcherTest, AMarkerIsTakenAndDone)
{
    const auto application = m_applications.Find("one");
    application->Detach(1);
    application->Attach(m_sessions["one"], 0);
    ASSERT_EQ(application->Snapshot().flow, ApplicationFlow::draining);
    FakeMessage stale{.body = "stale", .parkedFor = "one"};
    stale.properties.headers = {{parkingMarkerHeader, RmqValue::Integer(5)}};
    EXPECT_TRUE(Dispatch(stale));
    EXPECT_EQ(application->Snapshot().flow, ApplicationFlow::draining);
    FakeMessage marker{.body = "marker", .parkedFor = "one"};
    marker.properties.headers = {
        {parkingMarkerHeader, RmqValue::Integer(static_cast<std::int64_t>(m_parking.LastMarker()))}};
    EXPECT_TRUE(Dispatch(marker));
    EXPECT_EQ(application->Snapshot().flow, ApplicationFlow::live);
    EXPECT_THAT(m_log.Take(), ElementsAre("stale done", "marker done"));
    EXPECT_THAT(Got("one"), IsEmpty());
}

TEST_F(LocalAppDispatcherTest, AMarkerHeaderCountsOnlyInAParkingQueue)
{
    FakeMessage message{.body = "a"};
    message.properties.appId = "one";
    message.properties.headers = {{parkingMarkerHeader, RmqValue::Integer(5)}};
    EXPECT_TRUE(Dispatch(message));
    EXPECT_THAT(Got("one"), ElementsAre("a"));
}

TEST_F(LocalAppDispatcherTest, AMessageWhoseRouteIsBeingMadeWaitsForIt)
{
    m_subscriptions.BeginConfiguration("one");
    EXPECT_TRUE(Dispatch({.body = "a", .routingKey = "k"}));
    EXPECT_TRUE(Dispatch({.body = "b", .routingKey = "other"}));
    EXPECT_TRUE(Dispatch({.body = "c", .routingKey = "k"}));
    EXPECT_EQ(m_dispatcher.WaitingCount(), 3U);
    m_subscriptions.AddTopic("one", "k", "client");
    EXPECT_EQ(m_dispatcher.WaitingCount(), 1U);
    EXPECT_THAT(Got("one"), ElementsAre("a", "c"));
    EXPECT_THAT(m_log.Take(), ElementsAre("a done", "c done")) << "the places kept while waiting";
    m_subscriptions.AddTopic("one", "oth*.#", "client");
    m_subscriptions.AddTopic("one", "#", "client");
    EXPECT_THAT(Got("one"), ElementsAre("b"));
    EXPECT_EQ(m_dispatcher.WaitingCount(), 0U);
}

TEST_F(LocalAppDispatcherTest, AMessageOfAQueueThatIsBeingDeclaredWaitsForIt)
{
    m_subscriptions.BeginConfiguration("one");
    EXPECT_TRUE(Dispatch({.body = "a", .queue = "q", .routingKey = "q"}));
    m_subscriptions.AddQueue("one", "q");
    EXPECT_THAT(Got("one"), ElementsAre("a"));
}

TEST_F(LocalAppDispatcherTest, WhatNobodyWantsAtTheEndOfTheConfigurationIsDead)
{
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.BeginConfiguration("two");
    EXPECT_TRUE(Dispatch({.body = "a", .routingKey = "k", .tries = 2}));
    m_subscriptions.Commit("one");
    EXPECT_THAT(m_log.Take(), IsEmpty()) << "the other configuration may bring it";
    m_subscriptions.Abort("two", "refused");
    ASSERT_EQ(m_log.All().size(), 1U);
    EXPECT_EQ(m_log.All()[0].what, "dead:no application takes this message");
    EXPECT_EQ(m_log.All()[0].tries, 2U);
    EXPECT_EQ(m_dispatcher.WaitingCount(), 0U);
}

TEST_F(LocalAppDispatcherTest, StopLeavesWhatWaitsToTheBroker)
{
    m_subscriptions.BeginConfiguration("one");
    EXPECT_TRUE(Dispatch({.body = "a", .routingKey = "k"}));
    m_dispatcher.Stop();
    m_subscriptions.Commit("one");
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(LocalAppDispatcherTest, ApplicationForNamesTheReceiver)
{
    m_subscriptions.AddTopic("one", "k", "client");
    m_subscriptions.AddQueue("two", "q");
    EXPECT_EQ(m_dispatcher.ApplicationFor("client", "k", "named"), "named");
    EXPECT_EQ(m_dispatcher.ApplicationFor("client", "k", ""), "one");
    EXPECT_EQ(m_dispatcher.ApplicationFor("q", "x", ""), "two");
    EXPECT_EQ(m_dispatcher.ApplicationFor("client", "x", ""), "");
}

} // namespace
} // namespace VtxQel

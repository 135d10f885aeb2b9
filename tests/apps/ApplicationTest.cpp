#include "apps/Application.h"

#include "apps/AppsFakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Kind = ApplicationVerdict::Kind;

constexpr std::size_t budgetMessages = 16;
constexpr std::size_t budgetBytes = 1000;

class ApplicationTest : public testing::Test
{
  protected:
    ApplicationTest() { Make(SettingsOf("app")); }

    void Make(const ApplicationSettings& settings)
    {
        m_application = boost::make_shared<Application>(
            settings, ApplicationContext{m_budget, m_parking, m_timers, milliseconds(250)});
    }
    void Offer(const FakeMessage& message)
    {
        const auto delivery = boost::make_shared<FakeDelivery>(m_log, message);
        m_offered.push_back(delivery);
        m_application->Offer(delivery, delivery->Expect("app"));
    }
    /** The connection by which everything came so far is gone. */
    void LoseConnection()
    {
        for (const auto& delivery : m_offered)
        {
            delivery->isCurrent = false;
        }
    }
    void OfferLive(const std::vector<std::string>& bodies)
    {
        for (const std::string& body : bodies)
        {
            Offer({.body = body});
        }
    }
    void OfferParked(const std::vector<std::string>& bodies)
    {
        for (const std::string& body : bodies)
        {
            Offer({.body = body, .parkedFor = "app"});
        }
    }
    Application::SessionId Attach(const boost::shared_ptr<FakeSession>& session, std::uint32_t window = 0)
    {
        return m_application->Attach(session, window).value();
    }
    /** Attaches and lets the marker come back from the empty parking queue. */
    Application::SessionId AttachLive(std::uint32_t window = 0)
    {
        const Application::SessionId id = Attach(m_session, window);
        m_application->MarkerReturned(m_parking.LastMarker());
        m_parking.Take();
        return id;
    }
    void Answer(Application::SessionId id, std::uint64_t delivery, Kind kind = Kind::done, milliseconds delay = {})
    {
        EXPECT_EQ(m_application->Answer(id, {{delivery, kind, "reason", delay}}), std::nullopt);
    }
    ApplicationFlow Flow() const { return m_application->Snapshot().flow; }

    AnswerLog m_log;
    std::vector<boost::shared_ptr<FakeDelivery>> m_offered;
    HoldBudget m_budget{budgetMessages, budgetBytes};
    FakeParkingQueues m_parking;
    FakeTimers m_timers;
    boost::shared_ptr<FakeSession> m_session = boost::make_shared<FakeSession>();
    boost::shared_ptr<Application> m_application;
};

TEST_F(ApplicationTest, AnAbsentApplicationsMessagesAreParked)
{
    OfferLive({"a", "b"});
    EXPECT_THAT(m_log.Take(), ElementsAre("a park", "b park"));
    EXPECT_EQ(Flow(), ApplicationFlow::parked);
    EXPECT_THAT(m_parking.Take(), IsEmpty());
}

TEST_F(ApplicationTest, TheFirstInstanceDrainsTheParkingQueue)
{
    Attach(m_session);
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
    EXPECT_THAT(m_parking.Take(), ElementsAre("consume app 10", "marker app"));
}

TEST_F(ApplicationTest, AnEmptyParkingQueueMakesItLive)
{
    Attach(m_session);
    m_parking.Take();
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::live);
    EXPECT_THAT(m_parking.Take(), IsEmpty()) << "the parking queue stays consumed";
    OfferLive({"a", "b"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a", "b"));
    EXPECT_EQ(m_session->Flushes(), 2U);
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(ApplicationTest, AVerdictAnswersTheReceiptOnce)
{
    const auto id = AttachLive();
    OfferLive({"a", "b"});
    Answer(id, 1);
    Answer(id, 2, Kind::dead);
    EXPECT_THAT(m_log.Take(), ElementsAre("a done", "b dead:reason"));
    EXPECT_EQ(m_application->Answer(id, {{1, Kind::done, "", {}}}), 1U);
    EXPECT_THAT(m_log.Take(), IsEmpty());
    EXPECT_EQ(m_budget.Held().messages, 0U);
    EXPECT_EQ(m_budget.Held().bytes, 0U);
}

TEST_F(ApplicationTest, WhatComesInOneTurnIsSentTogether)
{
    AttachLive();
    const std::size_t before = m_session->Flushes();
    {
        const Turn turn;
        OfferLive({"a", "b", "c"});
        EXPECT_EQ(m_session->Flushes(), before);
    }
    EXPECT_EQ(m_session->Flushes(), before + 1);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a", "b", "c"));
}

TEST_F(ApplicationTest, VerdictsBeforeAnUnknownDeliveryCountAndNoneBehindIt)
{
    const auto id = AttachLive();
    OfferLive({"a", "b"});
    const auto unknown =
        m_application->Answer(id, {{1, Kind::done, "", {}}, {9, Kind::done, "", {}}, {2, Kind::done, "", {}}});
    EXPECT_EQ(unknown, 9U);
    EXPECT_THAT(m_log.Take(), ElementsAre("a done"));
}

TEST_F(ApplicationTest, NoMoreThanTheWindowIsInFlight)
{
    const auto id = AttachLive(2);
    OfferLive({"a", "b", "c"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a", "b"));
    Answer(id, 2);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("c"));
}

TEST_F(ApplicationTest, ALargerWindowThanConfiguredIsCut)
{
    EXPECT_EQ(m_application->EffectiveWindow(11), 10U);
    EXPECT_EQ(m_application->EffectiveWindow(3), 3U);
    EXPECT_EQ(m_application->EffectiveWindow(0), 10U);
    AttachLive(11);
    EXPECT_EQ(m_application->Snapshot().window, 10U);
}

TEST_F(ApplicationTest, AWiderWindowLetsMoreThrough)
{
    const auto id = AttachLive(1);
    OfferLive({"a", "b", "c"});
    m_application->SetWindow(id, 2);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a", "b"));
}

TEST_F(ApplicationTest, SeveralInstancesAreServedInTurn)
{
    const auto second = boost::make_shared<FakeSession>();
    AttachLive(2);
    Attach(second, 2);
    OfferLive({"a", "b", "c", "d", "e"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a", "c"));
    EXPECT_THAT(second->TakeBodies(), ElementsAre("b", "d"));
    EXPECT_EQ(m_application->Snapshot().pending, 1U);
}

TEST_F(ApplicationTest, AnInstanceThatLeavesHandsItsMessagesToAnotherInOrder)
{
    const auto second = boost::make_shared<FakeSession>();
    const auto first = AttachLive(3);
    Attach(second, 1);
    OfferLive({"a", "b", "c", "d", "e"});
    EXPECT_THAT(second->TakeBodies(), ElementsAre("b"));
    m_application->Detach(first);
    EXPECT_THAT(second->Take(), IsEmpty());
    m_application->SetWindow(2, 10);
    const auto deliveries = second->Take();
    std::vector<std::string> bodies;
    bodies.reserve(deliveries.size());
    for (const SessionDelivery& delivery : deliveries)
    {
        bodies.push_back(delivery.message->ToString() + (delivery.redelivered ? " again" : ""));
    }
    EXPECT_THAT(bodies, ElementsAre("a again", "c again", "d again", "e"));
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(ApplicationTest, AnInstanceThatWantsToGoGetsNothingMoreAndEndsWithItsLastVerdict)
{
    const auto second = boost::make_shared<FakeSession>();
    const auto first = AttachLive(2);
    OfferLive({"a", "b", "c"});
    m_session->TakeBodies();
    m_application->Leave(first);
    Attach(second, 1);
    EXPECT_THAT(second->TakeBodies(), ElementsAre("c"));
    Answer(first, 1);
    OfferLive({"d"});
    EXPECT_THAT(m_session->Ends(), IsEmpty());
    Answer(first, 2, Kind::retry);
    ASSERT_EQ(m_session->Ends().size(), 1U);
    EXPECT_EQ(m_session->Ends()[0].first, SessionEnd::finished);
    EXPECT_THAT(m_session->Take(), IsEmpty());
    EXPECT_THAT(m_log.Take(), ElementsAre("a done"));
    EXPECT_EQ(m_application->Snapshot().sessions, 1U);
}

TEST_F(ApplicationTest, WhatWasNotSentYetGoesToOthersAsIfNothingHadHappened)
{
    const auto second = boost::make_shared<FakeSession>();
    const auto first = AttachLive(3);
    OfferLive({"a", "b", "c"});
    m_session->unsent = 2;
    Attach(second);
    m_application->Leave(first);
    const auto deliveries = second->Take();
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[0].message->ToString(), "b");
    EXPECT_EQ(deliveries[1].message->ToString(), "c");
    EXPECT_FALSE(deliveries[0].redelivered);
    EXPECT_EQ(deliveries[0].tries, 0U);
    EXPECT_THAT(m_session->Ends(), IsEmpty());
    m_application->Detach(first);
    EXPECT_THAT(second->TakeBodies(), ElementsAre("a"));
}

TEST_F(ApplicationTest, AnInstanceThatWantsToGoIsEndedWhenItTakesTooLong)
{
    const auto first = AttachLive();
    OfferLive({"a"});
    m_application->Leave(first);
    m_application->Leave(first);
    m_timers.Step(seconds(60));
    ASSERT_EQ(m_session->Ends().size(), 1U);
    EXPECT_EQ(m_session->Ends()[0].first, SessionEnd::overdue);
    EXPECT_THAT(m_log.Take(), ElementsAre("a park"));
}

/** An application whose messages are kept in order by routing key, with two instances. */
class OrderedApplicationTest : public ApplicationTest
{
  protected:
    OrderedApplicationTest()
    {
        ApplicationSettings settings = SettingsOf("app");
        settings.orderingKey = "routing_key";
        Make(settings);
        m_first = AttachLive(2);
        m_second = Attach(m_other, 2);
    }
    /** Offers "x1": message 1 of the key x. */
    void OfferKeyed(const std::vector<std::string>& bodies)
    {
        for (const std::string& body : bodies)
        {
            Offer({.body = body, .routingKey = body.substr(0, 1)});
        }
    }

    boost::shared_ptr<FakeSession> m_other = boost::make_shared<FakeSession>();
    Application::SessionId m_first = 0;
    Application::SessionId m_second = 0;
};

TEST_F(OrderedApplicationTest, AKeyStaysWithItsInstance)
{
    OfferKeyed({"x1", "y1", "x2", "y2"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("x1", "x2"));
    EXPECT_THAT(m_other->TakeBodies(), ElementsAre("y1", "y2"));
    Answer(m_first, 1);
    Answer(m_first, 2);
    OfferKeyed({"x3"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("x3"));
}

TEST_F(OrderedApplicationTest, AFullInstanceKeepsNoOtherWaiting)
{
    OfferKeyed({"x1", "y1", "x2", "x3", "x4", "y2"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("x1", "x2"));
    EXPECT_THAT(m_other->TakeBodies(), ElementsAre("y1", "y2"));
    EXPECT_EQ(m_application->Snapshot().pending, 2U);
    Answer(m_first, 1);
    OfferKeyed({"x5"});
    Answer(m_first, 2);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("x3", "x4"));
    Answer(m_first, 3);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("x5"));
    EXPECT_EQ(m_application->Snapshot().pending, 0U);
}

TEST_F(OrderedApplicationTest, TheKeysOfAnInstanceThatIsGoneMoveInOrder)
{
    m_application->SetWindow(m_second, 10);
    OfferKeyed({"x1", "y1", "x2", "x3", "y2"});
    m_session->TakeBodies();
    m_other->TakeBodies();
    m_application->Detach(m_first);
    EXPECT_THAT(m_other->TakeBodies(), ElementsAre("x1", "x2", "x3"));
}

TEST_F(OrderedApplicationTest, AKeyFollowsALeavingInstanceOnlyOnceItsMessagesAreAnswered)
{
    m_application->SetWindow(m_second, 10);
    OfferKeyed({"x1", "y1", "x2", "x3", "y2"});
    m_session->TakeBodies();
    m_other->TakeBodies();
    m_application->Leave(m_first);
    OfferKeyed({"x4"});
    EXPECT_THAT(m_other->TakeBodies(), IsEmpty()) << "two messages of the key are still in the first one's hands";
    Answer(m_first, 1);
    EXPECT_THAT(m_other->TakeBodies(), IsEmpty());
    Answer(m_first, 2);
    EXPECT_THAT(m_other->TakeBodies(), ElementsAre("x3", "x4"));
    EXPECT_EQ(m_session->Ends().size(), 1U);
}

TEST_F(OrderedApplicationTest, AnIdleKeyOfALeavingInstanceMovesAtOnce)
{
    OfferKeyed({"x1"});
    OfferKeyed({"y1"});
    OfferKeyed({"z1"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("x1", "z1"));
    m_other->TakeBodies();
    Answer(m_first, 1);
    m_application->Leave(m_first);
    OfferKeyed({"x2", "z2"});
    EXPECT_THAT(m_other->TakeBodies(), ElementsAre("x2"));
}

TEST_F(OrderedApplicationTest, WhatWaitsForOneInstanceIsParkedWithTheRestInOrder)
{
    OfferKeyed({"x1", "y1", "x2", "x3", "y2", "y3", "x4"});
    m_timers.Step(milliseconds(300));
    m_log.Take();
    for (int number = 0; number < 20; ++number)
    {
        OfferKeyed({"z" + std::to_string(number)});
    }
    const auto answers = m_log.Take();
    ASSERT_GE(answers.size(), 3U);
    EXPECT_THAT(std::vector(answers.begin(), answers.begin() + 3), ElementsAre("x3 park", "y3 park", "x4 park"));
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
}

TEST_F(OrderedApplicationTest, WhatWaitsForOneInstanceIsDroppedWithItsConnection)
{
    OfferKeyed({"x1", "x2", "x3", "x4"});
    LoseConnection();
    m_application->DropUnsent();
    EXPECT_EQ(m_application->Snapshot().pending, 0U);
    EXPECT_EQ(m_budget.Held().messages, 2U);
}

TEST_F(OrderedApplicationTest, WhatWaitsForOneInstanceIsLeftToTheBrokerAtAStop)
{
    OfferKeyed({"x1", "x2", "x3"});
    m_application->Stop("the agent is stopping");
    EXPECT_EQ(m_application->Snapshot().pending, 0U);
    EXPECT_EQ(m_budget.Held().messages, 0U);
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(ApplicationTest, RetryDeliversAgainAfterTheDelay)
{
    const auto id = AttachLive();
    OfferLive({"a", "b"});
    m_session->Take();
    Answer(id, 1, Kind::retry, milliseconds(500));
    m_timers.Step(milliseconds(499));
    EXPECT_THAT(m_session->Take(), IsEmpty());
    m_timers.Step(milliseconds(1));
    const auto again = m_session->Take();
    ASSERT_EQ(again.size(), 1U);
    EXPECT_EQ(again[0].message->ToString(), "a");
    EXPECT_EQ(again[0].tries, 1U);
    EXPECT_TRUE(again[0].redelivered);
    EXPECT_EQ(again[0].id, 3U);
}

TEST_F(ApplicationTest, AMessageIsGivenAsOftenAsAllowedAndThenDead)
{
    const auto id = AttachLive();
    OfferLive({"a"});
    for (std::uint64_t delivery = 1; delivery <= 3; ++delivery)
    {
        EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a"));
        Answer(id, delivery, Kind::retry);
        m_timers.Step(milliseconds(1));
    }
    EXPECT_THAT(m_session->Take(), IsEmpty());
    ASSERT_EQ(m_log.All().size(), 1U);
    EXPECT_EQ(m_log.All()[0].what, "dead:too many tries");
    EXPECT_EQ(m_log.All()[0].tries, 3U);
}

TEST_F(ApplicationTest, TriesOfTheBrokerCount)
{
    const auto id = AttachLive();
    Offer({.body = "a", .tries = 2, .redelivered = true});
    EXPECT_EQ(m_session->Take().at(0).tries, 2U);
    Answer(id, 1, Kind::retry);
    EXPECT_THAT(m_log.Take(), ElementsAre("a dead:too many tries"));
}

TEST_F(ApplicationTest, AnOverdueInstanceIsEndedAndTheNextGetsItsMessages)
{
    const auto second = boost::make_shared<FakeSession>();
    const auto first = AttachLive(2);
    OfferLive({"a", "b"});
    m_timers.Step(seconds(30));
    Answer(first, 1);
    Attach(second);
    m_timers.Step(seconds(29));
    EXPECT_THAT(m_session->Ends(), IsEmpty());
    m_timers.Step(seconds(1));
    ASSERT_EQ(m_session->Ends().size(), 1U);
    EXPECT_EQ(m_session->Ends()[0].first, SessionEnd::overdue);
    EXPECT_THAT(m_session->Ends()[0].second, HasSubstr("delivery 2 had no verdict for 60 seconds"));
    EXPECT_THAT(m_session->Ends()[0].second, HasSubstr("ack_timeout_seconds"));
    EXPECT_THAT(second->TakeBodies(), ElementsAre("b"));
    EXPECT_EQ(m_application->Snapshot().overdue, 1U);
}

TEST_F(ApplicationTest, AnInstanceThatAnswersInTimeStays)
{
    const auto id = AttachLive();
    for (std::uint64_t delivery = 1; delivery <= 10; ++delivery)
    {
        OfferLive({"a"});
        m_timers.Step(seconds(59));
        Answer(id, delivery);
    }
    EXPECT_THAT(m_session->Ends(), IsEmpty());
}

TEST_F(ApplicationTest, BecomingAbsentParksEverythingInOrder)
{
    const auto id = AttachLive(3);
    OfferLive({"a", "b", "c", "d"});
    Answer(id, 2, Kind::retry, seconds(10));
    m_application->Detach(id);
    EXPECT_EQ(Flow(), ApplicationFlow::parked);
    EXPECT_THAT(m_log.Take(), ElementsAre("a park", "b park", "c park", "d park"));
    EXPECT_EQ(m_budget.Held().messages, 0U);
    EXPECT_THAT(m_parking.Take(), IsEmpty());
    m_timers.Step(seconds(100));
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(ApplicationTest, ASlowApplicationsPendingMessagesAreParkedAndThoseInFlightStay)
{
    AttachLive(2);
    OfferLive({"a", "b", "c", "d", "e", "f", "g", "h"});
    EXPECT_THAT(m_log.Take(), IsEmpty());
    m_timers.Step(milliseconds(250));
    EXPECT_THAT(m_log.Take(), IsEmpty()) << "eight of sixteen are its share";
    OfferLive({"i"});
    EXPECT_THAT(m_log.Take(), ElementsAre("c park", "d park", "e park", "f park", "g park", "h park", "i park"));
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
    EXPECT_THAT(m_parking.Take(), ElementsAre("consume app 10", "marker app"));
    EXPECT_EQ(m_application->Snapshot().inFlight, 2U);
}

TEST_F(ApplicationTest, HoldingMoreThanTheShareForAMomentIsNoSlowness)
{
    const auto id = AttachLive(10);
    OfferLive({"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"});
    EXPECT_EQ(m_session->TakeBodies().size(), 8U) << "no more than the share is sent";
    m_timers.Step(milliseconds(249));
    for (std::uint64_t delivery = 1; delivery <= 8; ++delivery)
    {
        Answer(id, delivery);
    }
    m_timers.Step(milliseconds(1));
    EXPECT_EQ(Flow(), ApplicationFlow::live);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("9", "10", "11", "12"));
}

TEST_F(ApplicationTest, HoldingMoreThanTheShareForLongIsNoticedWithoutAnotherMessage)
{
    AttachLive(2);
    OfferLive({"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"});
    m_timers.Step(milliseconds(250));
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
    EXPECT_EQ(m_log.Take().size(), 8U);
}

TEST_F(ApplicationTest, BytesOverTheBoundForAllAreParkedAtOnce)
{
    AttachLive(1);
    OfferLive({std::string(600, 'x'), std::string(400, 'y'), "z"});
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
    EXPECT_EQ(m_log.Take().size(), 2U);
    EXPECT_EQ(m_budget.Held().bytes, 600U);
}

TEST_F(ApplicationTest, HeadersCountAsBytes)
{
    AttachLive(1);
    Offer({.body = "x"});
    RmqProperties manyHeaders;
    manyHeaders.headers.resize(budgetBytes, {"", RmqValue{}});
    Offer({.body = "y", .properties = manyHeaders});
    EXPECT_THAT(m_log.Take(), ElementsAre("y park"));
    EXPECT_EQ(m_budget.Held().bytes, 1U);
}

TEST_F(ApplicationTest, BytesOverItsOwnBoundAreParkedAtOnce)
{
    ApplicationSettings settings = SettingsOf("app", 1);
    settings.maxHeldBytes = 10;
    Make(settings);
    AttachLive();
    OfferLive({"0123456789abcdef", "x"});
    EXPECT_THAT(m_log.Take(), ElementsAre("x park"));
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
}

class SlowApplicationTest : public ApplicationTest
{
  protected:
    SlowApplicationTest()
    {
        m_id = AttachLive(2);
        OfferLive({"1", "2", "3", "4", "5", "6", "7", "8", "9"});
        m_timers.Step(milliseconds(250));
        EXPECT_EQ(m_log.Take().size(), 7U);
        EXPECT_EQ(Flow(), ApplicationFlow::draining);
        m_session->Take();
        m_parking.Take();
    }
    Application::SessionId m_id = 0;
};

TEST_F(SlowApplicationTest, NewMessagesGoBehindTheParkedOnes)
{
    OfferLive({"x"});
    EXPECT_THAT(m_log.Take(), ElementsAre("x park"));
}

TEST_F(SlowApplicationTest, ComesBackToLifeInOrder)
{
    OfferParked({"3", "4", "5", "6", "7"});
    OfferLive({"10"});
    EXPECT_THAT(m_log.Take(), ElementsAre("10 park"));
    OfferParked({"8", "9"});
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::switching);
    EXPECT_THAT(m_parking.Take(), ElementsAre("marker app"));
    OfferLive({"11"});
    OfferParked({"10"});
    OfferLive({"12"});
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::live);
    EXPECT_THAT(m_parking.Take(), IsEmpty()) << "the parking queue stays consumed";
    OfferLive({"13"});
    m_application->SetWindow(m_id, 10);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("3", "4", "5", "6", "7", "8", "9", "10"));
    for (std::uint64_t delivery = 1; delivery <= 10; ++delivery)
    {
        Answer(m_id, delivery);
    }
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("11", "12", "13"));
}

TEST_F(SlowApplicationTest, AStaleMarkerChangesNothing)
{
    m_application->MarkerReturned(m_parking.LastMarker() - 1);
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
}

TEST_F(SlowApplicationTest, AMarkerThatStayedWithAnotherBrokerIsSentAgain)
{
    const std::uint64_t first = m_parking.LastMarker();
    m_application->Reconnected();
    EXPECT_THAT(m_parking.Take(), ElementsAre("marker app"));
    m_application->MarkerReturned(first);
    EXPECT_EQ(Flow(), ApplicationFlow::draining) << "the new one is behind everything parked";
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::live);
}

TEST_F(SlowApplicationTest, AMarkerLostWhileSwitchingIsSentAgain)
{
    OfferLive({"10"});
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::switching);
    m_parking.Take();
    m_application->Reconnected();
    EXPECT_THAT(m_parking.Take(), ElementsAre("marker app"));
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::live);
    m_application->Reconnected();
    EXPECT_THAT(m_parking.Take(), IsEmpty());
}

TEST_F(SlowApplicationTest, TooMuchWhileSwitchingGoesBackToDraining)
{
    OfferLive({"10"});
    m_application->MarkerReturned(m_parking.LastMarker());
    ASSERT_EQ(Flow(), ApplicationFlow::switching);
    m_log.Take();
    OfferLive({"11", "12", "13", "14", "15", "16", "17"});
    EXPECT_THAT(m_log.Take(), ElementsAre("11 park", "12 park", "13 park", "14 park", "15 park", "16 park", "17 park"));
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::switching);
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::live);
}

/** Held, it might stop the reading by which the marker has to come. */
TEST_F(SlowApplicationTest, AMessageOverTheBoundForAllDoesNotWaitBehindAMarker)
{
    Answer(m_id, 1);
    Answer(m_id, 2);
    ASSERT_EQ(m_budget.Held().messages, 0U);
    OfferLive({"10"});
    m_application->MarkerReturned(m_parking.LastMarker());
    ASSERT_EQ(Flow(), ApplicationFlow::switching);
    m_log.Take();
    const std::string large(budgetBytes + 1, 'x');
    OfferLive({large});
    EXPECT_THAT(m_log.Take(), ElementsAre(large + " park"));
    EXPECT_EQ(Flow(), ApplicationFlow::draining);
}

TEST_F(SlowApplicationTest, AShortAbsenceWhileDrainingKeepsEverythingInOrder)
{
    OfferParked({"3", "4"});
    m_application->Detach(m_id);
    EXPECT_EQ(Flow(), ApplicationFlow::parked);
    EXPECT_THAT(m_parking.Take(), IsEmpty());
    OfferParked({"5"});
    m_timers.Step(seconds(59));
    Attach(m_session);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("1", "2", "3", "4", "5"));
    m_timers.Step(seconds(30));
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(SlowApplicationTest, LongAbsenceParksTheOlderOnesToo)
{
    OfferParked({"3", "4"});
    m_application->Detach(m_id);
    m_timers.Step(seconds(60));
    EXPECT_THAT(m_parking.Take(), ElementsAre("release app"));
    EXPECT_THAT(m_log.Take(), ElementsAre("1 park", "2 park")) << "the parked ones are the broker's again";
    EXPECT_EQ(m_budget.Held().messages, 0U);
}

TEST_F(SlowApplicationTest, AReturnInTimeEndsTheAbsence)
{
    m_application->Detach(m_id);
    m_timers.Step(seconds(59));
    Attach(m_session, 1);
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("1"));
    m_timers.Step(seconds(2));
    EXPECT_THAT(m_log.Take(), IsEmpty()) << "the second one waits for the first, not for the application";
}

TEST_F(SlowApplicationTest, AbsenceWhileSwitchingParksWhatWaitedInMemory)
{
    OfferLive({"10"});
    m_application->MarkerReturned(m_parking.LastMarker());
    OfferLive({"11", "12"});
    m_log.Take();
    m_parking.Take();
    m_application->Detach(m_id);
    EXPECT_THAT(m_log.Take(), ElementsAre("11 park", "12 park"));
    EXPECT_THAT(m_parking.Take(), IsEmpty());
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::parked);
}

TEST_F(SlowApplicationTest, AParkedMessageThatComesAfterTheReleaseIsLeftToTheBroker)
{
    m_application->Detach(m_id);
    m_timers.Step(seconds(60));
    m_log.Take();
    OfferParked({"3"});
    Attach(m_session);
    EXPECT_THAT(m_session->TakeBodies(), IsEmpty());
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(SlowApplicationTest, AMarkerThatCannotBeSentIsSentAgainWithGrowingDelay)
{
    const std::uint64_t first = m_parking.LastMarker();
    m_parking.CompleteLastMarker(false);
    m_timers.Step(milliseconds(999));
    EXPECT_THAT(m_parking.Take(), IsEmpty());
    m_timers.Step(milliseconds(1));
    EXPECT_THAT(m_parking.Take(), ElementsAre("marker app"));
    EXPECT_NE(m_parking.LastMarker(), first);
    m_parking.CompleteLastMarker(false);
    m_timers.Step(milliseconds(1999));
    EXPECT_THAT(m_parking.Take(), IsEmpty());
    m_timers.Step(milliseconds(1));
    EXPECT_THAT(m_parking.Take(), ElementsAre("marker app"));
    m_parking.CompleteLastMarker(true);
    m_application->MarkerReturned(m_parking.LastMarker());
    EXPECT_EQ(Flow(), ApplicationFlow::live);
}

TEST_F(SlowApplicationTest, AMarkerThatDoesNotComeBackIsSentOnceMoreAndEitherCounts)
{
    const std::uint64_t first = m_parking.LastMarker();
    m_parking.CompleteLastMarker(true);
    m_timers.Step(milliseconds(29999));
    EXPECT_THAT(m_parking.Take(), IsEmpty());
    m_timers.Step(milliseconds(1));
    EXPECT_THAT(m_parking.Take(), ElementsAre("marker app"));
    EXPECT_EQ(m_parking.LastMarker(), first);
    m_parking.CompleteLastMarker(true);
    m_application->MarkerReturned(first);
    EXPECT_EQ(Flow(), ApplicationFlow::live);
    m_application->MarkerReturned(first);
    EXPECT_EQ(Flow(), ApplicationFlow::live) << "the other one changes nothing";
}

TEST_F(ApplicationTest, NothingIsHandedOutWhileStoppingButVerdictsCount)
{
    const auto id = AttachLive(1);
    OfferLive({"a", "b"});
    m_application->StopDelivering();
    OfferLive({"c"});
    Answer(id, 1);
    EXPECT_THAT(m_log.Take(), ElementsAre("a done"));
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a"));
    EXPECT_FALSE(m_application->Attach(m_session, 0).has_value());
}

TEST_F(ApplicationTest, StopLeavesWhatIsUnansweredToTheBroker)
{
    AttachLive(1);
    OfferLive({"a", "b"});
    m_application->StopDelivering();
    m_application->Stop("the agent is stopping");
    EXPECT_THAT(m_log.Take(), IsEmpty());
    ASSERT_EQ(m_session->Ends().size(), 1U);
    EXPECT_EQ(m_session->Ends()[0].first, SessionEnd::unavailable);
    EXPECT_EQ(m_session->Ends()[0].second, "the agent is stopping");
    EXPECT_EQ(m_budget.Held().messages, 0U);
}

TEST_F(ApplicationTest, AnInstanceThatLeavesWhileStoppingParksNothing)
{
    const auto id = AttachLive(1);
    OfferLive({"a", "b"});
    m_application->StopDelivering();
    m_application->Detach(id);
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(ApplicationTest, AMessageOverWhichInstancesEndIsDeadAfterTheAllowedTries)
{
    auto holder = AttachLive();
    OfferLive({"poison", "good"});
    for (int ended = 0; ended < 3; ++ended)
    {
        EXPECT_THAT(m_log.Take(), IsEmpty());
        const auto next = Attach(boost::make_shared<FakeSession>());
        m_application->Detach(holder);
        holder = next;
    }
    EXPECT_THAT(m_log.Take(), ElementsAre("poison dead:too many tries"));
    EXPECT_EQ(m_application->Snapshot().inFlight, 1U);
}

TEST_F(ApplicationTest, WhatWasTriedIsParkedAtAStopSoThatItsCountIsKept)
{
    const auto id = AttachLive();
    OfferLive({"a", "b"});
    Answer(id, 1, Kind::retry, seconds(10));
    m_application->Stop("the agent is stopping");
    ASSERT_EQ(m_log.All().size(), 1U);
    EXPECT_EQ(m_log.All()[0].what, "park");
    EXPECT_EQ(m_log.All()[0].tries, 1U);
}

TEST_F(ApplicationTest, ARetryWhileStoppingIsParked)
{
    const auto id = AttachLive();
    OfferLive({"a"});
    m_application->StopDelivering();
    Answer(id, 1, Kind::retry, seconds(10));
    m_application->Stop("the agent is stopping");
    EXPECT_THAT(m_log.Take(), ElementsAre("a park"));
}

TEST_F(ApplicationTest, WhatTheConnectionLostIsDroppedUnanswered)
{
    AttachLive(1);
    OfferLive({"a", "b"});
    LoseConnection();
    m_application->DropUnsent();
    EXPECT_THAT(m_log.Take(), IsEmpty());
    EXPECT_EQ(m_application->Snapshot().pending, 0U);
    EXPECT_EQ(m_application->Snapshot().inFlight, 1U);
    EXPECT_EQ(m_application->Snapshot().heldBytes, 1U);
}

TEST_F(ApplicationTest, WhatCameByAnotherConnectionThanTheLostOneStays)
{
    const auto id = AttachLive(1);
    OfferLive({"a"});
    Answer(id, 1, Kind::retry, seconds(5));
    OfferLive({"b", "c"});
    LoseConnection();
    OfferLive({"d"});
    m_application->DropUnsent();
    Answer(id, 2, Kind::done);
    Answer(id, 3, Kind::done);
    m_timers.Step(seconds(6));
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a", "b", "d"))
        << "the retry and c are gone with their connection";
    EXPECT_EQ(m_application->Snapshot().heldBytes, 0U);
}

TEST_F(ApplicationTest, ARetryOfALivingConnectionKeepsItsTime)
{
    const auto id = AttachLive(1);
    OfferLive({"a"});
    Answer(id, 1, Kind::retry, seconds(5));
    m_session->TakeBodies();
    m_application->DropUnsent();
    EXPECT_THAT(m_session->TakeBodies(), IsEmpty());
    m_timers.Step(seconds(6));
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a"));
}

TEST_F(ApplicationTest, ARemovedApplicationsMessagesAreParked)
{
    AttachLive(1);
    OfferLive({"a", "b"});
    m_application->Remove("gone");
    EXPECT_THAT(m_log.Take(), ElementsAre("a park", "b park"));
    EXPECT_FALSE(m_application->Attach(m_session, 0).has_value());
}

TEST_F(ApplicationTest, SnapshotCounts)
{
    const auto id = AttachLive(2);
    OfferLive({"a", "b", "c"});
    Answer(id, 1);
    Answer(id, 2, Kind::retry, seconds(1));
    const ApplicationSnapshot snapshot = m_application->Snapshot();
    EXPECT_EQ(snapshot.flow, ApplicationFlow::live);
    EXPECT_EQ(snapshot.sessions, 1U);
    EXPECT_EQ(snapshot.window, 2U);
    EXPECT_EQ(snapshot.inFlight, 1U);
    EXPECT_EQ(snapshot.pending, 0U);
    EXPECT_EQ(snapshot.waitingForRetry, 1U);
    EXPECT_EQ(snapshot.delivered, 3U);
    EXPECT_EQ(snapshot.done, 1U);
    EXPECT_EQ(snapshot.retried, 1U);
}

TEST_F(ApplicationTest, SnapshotTellsAVerdictOfDeadFromTooManyTries)
{
    const auto id = AttachLive(2);
    OfferLive({"a", "b"});
    Answer(id, 1, Kind::dead);
    EXPECT_EQ(m_application->Snapshot().dead, 1U);
    EXPECT_EQ(m_application->Snapshot().tooManyTries, 0U);
    ApplicationSettings once = SettingsOf("app", 2);
    once.maxTries = 1;
    m_application->UpdateSettings(once);
    Answer(id, 2, Kind::retry, seconds(1));
    EXPECT_EQ(m_application->Snapshot().dead, 1U);
    EXPECT_EQ(m_application->Snapshot().tooManyTries, 1U);
}

TEST_F(ApplicationTest, ASmallerConfiguredWindowHoldsForAttachedInstances)
{
    AttachLive();
    m_application->UpdateSettings(SettingsOf("app", 1));
    OfferLive({"a", "b"});
    EXPECT_THAT(m_session->TakeBodies(), ElementsAre("a"));
}

} // namespace
} // namespace VtxQel

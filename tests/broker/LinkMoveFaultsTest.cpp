#include "broker/BadPort.h"
#include "broker/LinkMoveScene.h"
#include "broker/NumberedLoad.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <future>
#include <string>
#include <tuple>
#include <utility>

namespace VtxQel
{

using testing::HasSubstr;

TEST_F(LinkMove, ATargetThatIsLostAtOnceIsLeftForTheOneBefore)
{
    Connect();
    m_link->Send(m_queue, "kept");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    MoveTo(ELSEWHERE);
    CloseElsewhere("a test wants it");
    EXPECT_THAT(Listener().WaitForDisconnect(1).value_or(""), HasSubstr("a test wants it"));
    ASSERT_TRUE(Listener().WaitForRestored(3));
    EXPECT_EQ(Link().Status().urlIndex, HERE);
    EXPECT_EQ(Link().Status().reconnects, 0U) << "the old connection is in use again";
    EXPECT_FALSE(Listener().Delivery(0).source->IsOver());
    Link().Settle(Listener().Delivery(0).tag, SettleAs::ack);
    const auto outsider = Outsider(HERE);
    outsider->Send(m_queue, "more");
    EXPECT_TRUE(Listener().WaitForDeliveries(2));
    EXPECT_EQ(Listener().Delivery(1).body, "more");
    // And on we go, with nothing left over of the move that failed late.
    MoveTo(ELSEWHERE);
}

TEST_F(LinkMove, ThePresentConnectionMayBeLostWhileTheOtherOneIsPrepared)
{
    const BadPort silent(BadPort::Habit::isSilent);
    LinkSettings settings = NodeSettings();
    settings.urls = {NodeUrl(), UrlElsewhere(), silent.Url()};
    Connect(settings);
    Link().MoveTo(2);
    Rabbitmqctl("close_all_connections 'a test wants it'");
    ASSERT_TRUE(Listener().WaitForDisconnect(1));
    EXPECT_EQ(Link().Status().failedMoves, 1U);
    EXPECT_EQ(Link().Status().lastMoveError, "the present connection is lost");
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_EQ(Link().Status().urlIndex, 1U) << "as after any lost connection";
}

TEST_F(LinkMove, ADeadTargetCostsNothingWhileAConsumerIsMadeAgain)
{
    const BadPort refusing(BadPort::Habit::refuses);
    LinkSettings settings = NodeSettings();
    settings.urls = {NodeUrl(), refusing.Url()};
    Connect(settings);
    Rabbitmqctl("delete_queue " + m_queue);
    ASSERT_TRUE(Listener().WaitForCancelled());
    EXPECT_THAT(WhyNot(1), HasSubstr("Connection refused"));
    ASSERT_TRUE(Listener().WaitForRestored(2));
    EXPECT_EQ(Listener().DisconnectCount(), 0U);
    EXPECT_EQ(Link().Status().urlIndex, HERE);
}

TEST_F(LinkMove, WithoutAConnectionTheLinkJustGoesThere)
{
    const BadPort refusing(BadPort::Habit::refuses);
    LinkSettings settings = NodeSettings();
    settings.urls = {refusing.Url(), NodeUrl()};
    RecordingListener listener;
    BrokerLink link(settings, listener);
    link.Start();
    link.MoveTo(1);
    ASSERT_TRUE(listener.WaitForRestored(1));
    EXPECT_EQ(link.Status().moves, 0U);
}

TEST_F(LinkMove, AStopEndsAMoveInAnyPhase)
{
    const BadPort silent(BadPort::Habit::isSilent);
    LinkSettings settings = ThreeFrontEnds();
    settings.urls.push_back(silent.Url());
    Connect(settings);
    Link().MoveTo(3);
    Link().Stop(std::chrono::seconds(5));

    for (int i = 0; i < 5; ++i)
    {
        Connect();
        m_link->Send(m_queue, "kept");
        ASSERT_TRUE(Listener().WaitForDeliveries(1));
        Link().MoveTo(ELSEWHERE);
        if (i > 2)
        {
            ASSERT_TRUE(Listener().WaitForMoved(1));
        }
        Link().StopConsuming();
        Link().Settle(Listener().Delivery(0).tag, SettleAs::ack);
        Link().Stop(std::chrono::seconds(5));
        EXPECT_EQ(Outsider(HERE)->Count(m_queue), 0U);
    }
}

TEST_F(LinkMove, AStopAnswersWhateverIsBeingPublishedWhereAQuestionCameFrom)
{
    Connect();
    m_link->Send(m_queue, "question");
    ASSERT_TRUE(Listener().WaitForDeliveries(1));
    const IncomingMessage question = Listener().Delivery(0);
    MoveTo(ELSEWHERE);
    constexpr int ANSWERS = 20;
    std::atomic<int> answered{0};
    for (int i = 0; i < ANSWERS; ++i)
    {
        OutgoingMessage answer;
        answer.routingKey = m_queue;
        Link().PublishBack(question, answer, [&](PublishResult, const std::string&) { ++answered; });
    }
    Link().Stop(std::chrono::milliseconds(0));
    EXPECT_EQ(answered, ANSWERS);
}

/** Ends one side's connections when the link asks for what has to exist for the n-th time. */
class EndingListener : public SettlingListener
{
  public:
    EndingListener(std::string user, std::size_t when) : m_user(std::move(user)), m_when(when) {}

    DesiredTopology OnConnected() override
    {
        if (++m_asked == m_when)
        {
            // On the link's thread: it finds the ends when it reads next.
            Rabbitmqctl("close_all_user_connections " + m_user + " 'a test wants it'");
        }
        return SettlingListener::OnConnected();
    }
    bool HasEnded() const { return m_asked >= m_when; }

  private:
    const std::string m_user;
    const std::size_t m_when;
    std::atomic<std::size_t> m_asked{0};
};

/** Who loses its connections during a move, and at which question of the link. */
class LinkMoveLost : public LinkMove, public testing::WithParamInterface<std::tuple<bool, std::size_t>>
{
  protected:
    static const std::string& OtherUser()
    {
        static const std::string user = []
        {
            std::string name = Unique("user");
            Rabbitmqctl("add_user " + name + " secret");
            Rabbitmqctl("set_permissions " + name + " '.*' '.*' '.*'");
            return name;
        }();
        return user;
    }
};

TEST_P(LinkMoveLost, AndNoMessageWithIt)
{
    const auto [present, when] = GetParam();
    LinkSettings settings = NodeSettings();
    settings.urls = {NodeUrl("amqp", OtherUser() + ":secret", ""), NodeUrl()};
    EndingListener listener(present ? OtherUser() : "guest", when);
    listener.SetDesired(m_desired);
    BrokerLink link(settings, listener);
    listener.SettleWith(link);
    link.Start();
    ASSERT_TRUE(listener.WaitForRestored(1));
    constexpr std::size_t BEFORE = 50;
    std::atomic<std::size_t> confirmed{0};
    std::size_t published = 0;
    const auto publish = [&]
    {
        OutgoingMessage message;
        message.routingKey = m_queue;
        message.body = std::to_string(published++);
        message.mandatory = true;
        link.Publish(
            std::move(message),
            [&](PublishResult result, const std::string& why)
            {
                EXPECT_EQ(result, PublishResult::confirmed) << why;
                ++confirmed;
            });
    };
    publish();
    ASSERT_TRUE(Eventually([&] { return confirmed == 1U; }));
    link.MoveTo(1);
    while (published < BEFORE)
    {
        publish();
    }
    ASSERT_TRUE(Eventually([&] { return listener.HasEnded(); }));
    publish();
    ASSERT_TRUE(Eventually([&] { return confirmed == published; }));
    ASSERT_TRUE(listener.WaitForAll(published));
    ASSERT_TRUE(Eventually([&] { return link.Status().restored; }));
    std::printf(
        "%s lost at question %zu: %llu moves, %llu failed (%s), now at %zu; %s\n", present ? "present" : "target", when,
        static_cast<unsigned long long>(link.Status().moves),
        static_cast<unsigned long long>(link.Status().failedMoves), link.Status().lastMoveError.c_str(),
        link.Status().urlIndex, listener.Judge(published).ToString().c_str());
    EXPECT_EQ(listener.Judge(published).lost, 0U);
    link.Stop(std::chrono::seconds(5));
}

// 1 is the first connection's; 2 when the target is open, 3 and 4 when everything asked for before is made there, the
// last of which is followed by the switch, 5 just behind it.
INSTANTIATE_TEST_SUITE_P(
    LinkMove, LinkMoveLost, testing::Combine(testing::Bool(), testing::Values(2U, 3U, 4U, 5U)),
    [](const auto& each)
    { return std::string(std::get<0>(each.param) ? "present" : "target") + std::to_string(std::get<1>(each.param)); });

/** One way in which the other front end cannot be moved to. */
struct BadTarget
{
    const char* name;
    std::function<std::string(BadPort& port)> url;
    BadPort::Habit habit;
    /** Done to it before. */
    std::function<void(TestLink& there, const DesiredTopology& desired)> spoil;
    const char* why;
};

class LinkMoveFails : public LinkMove, public testing::WithParamInterface<BadTarget>
{
};

TEST_P(LinkMoveFails, AndEverythingStaysAsItIs)
{
    const BadTarget& target = GetParam();
    BadPort port(target.habit);
    LinkSettings settings = NodeSettings();
    settings.urls = {NodeUrl(), target.url(port)};
    if (target.spoil)
    {
        LinkSettings there = settings;
        there.urls = {settings.urls[1]};
        TestLink outsider({}, there);
        target.spoil(outsider, m_desired);
    }
    Connect(settings);
    const auto began = std::chrono::steady_clock::now();
    EXPECT_THAT(WhyNot(1), HasSubstr(target.why));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    std::printf("%s: given up after %.2f s: %s\n", target.name, took.count(), Link().Status().lastMoveError.c_str());
    ExpectUndisturbed();
}

namespace
{

std::string UrlOf(BadPort& port)
{
    return port.Url();
}
std::string UrlOfElsewhere(BadPort&)
{
    return UrlElsewhere();
}

void SpoilQueue(TestLink& there, const DesiredTopology& desired)
{
    QueueSpec other = Queue(desired.ownQueues[0].name, 0);
    other.arguments = {{"x-max-length", RmqValue::Integer(1)}};
    EXPECT_EQ(there->DeclareQueue(other, DEADLINE).answer, Answer::ok);
}

void SpoilApplicationQueue(TestLink& there, const DesiredTopology& desired)
{
    QueueSpec other = Queue(desired.applicationQueues[0].name, 0);
    other.arguments = {{"x-max-length", RmqValue::Integer(1)}};
    EXPECT_EQ(there->DeclareQueue(other, DEADLINE).answer, Answer::ok);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(
    LinkMove, LinkMoveFails,
    testing::Values(
        BadTarget{"refusing", UrlOf, BadPort::Habit::refuses, nullptr, "Connection refused"},
        BadTarget{"hangingUp", UrlOf, BadPort::Habit::hangsUp, nullptr, "ended the connection before the login"},
        BadTarget{"silent", UrlOf, BadPort::Habit::isSilent, nullptr, "did not complete the login within 10 s"},
        BadTarget{
            "wrongPassword", [](BadPort&) { return NodeUrl("amqp", "guest:wrong", ""); }, BadPort::Habit::refuses,
            nullptr, "login refused: 403"},
        BadTarget{
            "noVirtualHost", [](BadPort&) { return NodeUrl("amqp", "guest:guest", "no-such-vhost"); },
            BadPort::Habit::refuses, nullptr, "virtual host no-such-vhost refused"},
        BadTarget{
            "notSpeakingTls", [](BadPort&) { return NodeUrl("amqps", "guest:guest", ""); }, BadPort::Habit::refuses,
            nullptr, "TLS"},
        BadTarget{"ownQueueRefused", UrlOfElsewhere, BadPort::Habit::refuses, SpoilQueue, "406"},
        BadTarget{"applicationQueueRefused", UrlOfElsewhere, BadPort::Habit::refuses, SpoilApplicationQueue, "406"}),
    [](const auto& each) { return each.param.name; });

} // namespace VtxQel

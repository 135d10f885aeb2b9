#include "broker/LoopProbe.h"

#include "common/MessageTypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{
namespace
{

using namespace std::chrono_literals;
using State = LoopProbeStatus::State;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LoopProbeTest : public testing::Test
{
  protected:
    LoopProbeActions Actions()
    {
        return {
            [this](OutgoingMessage message, PublishCompletion completion)
            { published.emplace_back(std::move(message), std::move(completion)); },
            [this](std::chrono::steady_clock::duration delay, std::function<void()> task)
            { tasks.emplace(now + delay, std::move(task)); },
            [this] { return arrivals; },
            [this] { return saturated; },
            [this] { done.emplace_back("consume"); },
            [this] { done.emplace_back("reconnect"); }};
    }
    /** Lets the probe's tasks of this time run. */
    void Pass(std::chrono::steady_clock::duration time)
    {
        const auto end = now + time;
        while (!tasks.empty() && tasks.begin()->first <= end)
        {
            auto next = tasks.extract(tasks.begin());
            now = next.key();
            next.mapped()();
        }
        now = end;
    }
    void Confirm() { published.back().second(PublishResult::confirmed, ""); }
    void Return() { probe.Returned(published.back().first.properties.messageId); }

    std::chrono::steady_clock::duration now{0};
    std::multimap<std::chrono::steady_clock::duration, std::function<void()>> tasks;
    std::vector<std::pair<OutgoingMessage, PublishCompletion>> published;
    std::uint64_t arrivals = 0;
    bool saturated = false;
    std::vector<std::string> done;
    LoopProbe probe{{30s, 10s}, "queue", Actions()};
};

TEST_F(LoopProbeTest, IsNotReadyUntilTheFirstOneCameBack)
{
    EXPECT_THAT(probe.NotReady(), HasSubstr("not come back yet"));
    probe.Start();
    ASSERT_EQ(published.size(), 1U);
    EXPECT_EQ(published[0].first.routingKey, "queue");
    EXPECT_EQ(published[0].first.properties.type, LOOP_PROBE_TYPE);
    EXPECT_THAT(probe.NotReady(), HasSubstr("not come back yet"));
    Confirm();
    Return();
    EXPECT_EQ(probe.NotReady(), "");
    EXPECT_EQ(probe.Status().state, State::fresh);
    EXPECT_EQ(probe.Status().roundTrips.Count(), 1U);
}

TEST_F(LoopProbeTest, SendsOneEachInterval)
{
    probe.Start();
    for (std::size_t count = 2; count < 5; ++count)
    {
        Confirm();
        Return();
        Pass(30s);
        EXPECT_EQ(published.size(), count);
    }
    EXPECT_NE(published[0].first.properties.messageId, published[1].first.properties.messageId);
    EXPECT_THAT(done, IsEmpty());
}

TEST_F(LoopProbeTest, AConfirmedProbeThatDoesNotComeBackIsAFailure)
{
    probe.Start();
    Confirm();
    Pass(10s);
    EXPECT_EQ(probe.Status().state, State::failed);
    EXPECT_THAT(probe.NotReady(), HasSubstr("has not come back within 10 s"));
    EXPECT_THAT(done, ElementsAre("consume"));
}

TEST_F(LoopProbeTest, FailuresInARowReconnectAtGrowingDistance)
{
    probe.Start();
    for (int failure = 1; failure <= 9; ++failure)
    {
        Confirm();
        Pass(30s);
    }
    EXPECT_THAT(done, ElementsAre("consume", "reconnect", "reconnect", "reconnect"));
    EXPECT_EQ(probe.Status().failed, 9U);
}

TEST_F(LoopProbeTest, ADeadlineLongerThanTheIntervalIsWaitedFor)
{
    LoopProbe slow{{1s, 3s}, "queue", Actions()};
    slow.Start();
    for (int time = 0; time < 12; ++time)
    {
        Confirm();
        Pass(1s);
    }
    EXPECT_EQ(slow.Status().failed, 4U);
    EXPECT_THAT(done, ElementsAre("consume", "reconnect", "reconnect"));
}

TEST_F(LoopProbeTest, AReconnectDoesNotMakeTheRowOfFailuresEnd)
{
    probe.Start();
    Confirm();
    Pass(10s);
    probe.Pause();
    probe.Start();
    Confirm();
    Pass(10s);
    EXPECT_THAT(done, ElementsAre("consume", "reconnect"));
    Return();
    EXPECT_EQ(probe.Status().failuresInARow, 0U);
}

TEST_F(LoopProbeTest, ALateReturnMakesItFreshAgain)
{
    probe.Start();
    Confirm();
    Pass(20s);
    Return();
    EXPECT_EQ(probe.NotReady(), "");
    EXPECT_EQ(probe.Status().state, State::fresh);
}

TEST_F(LoopProbeTest, IsBehindWhileOtherMessagesArrive)
{
    probe.Start();
    Confirm();
    for (int time = 0; time < 5; ++time)
    {
        ++arrivals;
        Pass(10s);
        EXPECT_EQ(probe.Status().state, State::behind);
        EXPECT_EQ(probe.NotReady(), "");
    }
    EXPECT_EQ(published.size(), 1U) << "one that is late is waited for";
    Pass(10s);
    EXPECT_EQ(probe.Status().state, State::failed);
    EXPECT_THAT(done, ElementsAre("consume"));
}

TEST_F(LoopProbeTest, IsBehindWhileTheAgentHoldsAllItMay)
{
    saturated = true;
    probe.Start();
    Confirm();
    Pass(60s);
    EXPECT_EQ(probe.Status().state, State::behind);
    EXPECT_THAT(done, IsEmpty());
}

TEST_F(LoopProbeTest, AProbeThatCannotBePublishedSaysNothingOfTheConsumer)
{
    probe.Start();
    published.back().second(PublishResult::refused, "no permission");
    Pass(10s);
    EXPECT_THAT(probe.NotReady(), HasSubstr("could not be published: no permission"));
    EXPECT_THAT(done, IsEmpty());
    Pass(30s);
    EXPECT_THAT(probe.NotReady(), HasSubstr("has not confirmed it"));
    EXPECT_THAT(done, IsEmpty());
}

TEST_F(LoopProbeTest, AQueueThatIsGoneMakesTheConnectionAnewFromTheFirstTimeOn)
{
    probe.Start();
    for (int failure = 1; failure <= 4; ++failure)
    {
        published.back().second(PublishResult::noRoute, "no queue is bound");
        Pass(30s);
    }
    EXPECT_THAT(probe.NotReady(), HasSubstr("finds no queue queue"));
    EXPECT_THAT(done, ElementsAre("reconnect", "reconnect", "reconnect")) << "after the 1st, 2nd and 4th";
    EXPECT_EQ(probe.Status().failed, 4U);
}

TEST_F(LoopProbeTest, WhatIsOnItsWayWhenTheConnectionEndsDoesNotCount)
{
    probe.Start();
    Confirm();
    probe.Pause();
    Pass(100s);
    EXPECT_EQ(probe.Status().failed, 0U);
    EXPECT_EQ(published.size(), 1U);
    EXPECT_THAT(probe.NotReady(), HasSubstr("not come back yet"));
}

TEST_F(LoopProbeTest, SomebodyElsesProbeIsCountedAndProvesNothing)
{
    probe.Start();
    probe.Returned("other/1");
    EXPECT_EQ(probe.Status().strangers, 1U);
    EXPECT_EQ(probe.Status().state, State::waiting);
}

TEST_F(LoopProbeTest, IsOffWithAnIntervalOfZero)
{
    LoopProbe off{{0s, 10s}, "queue", Actions()};
    off.Start();
    EXPECT_THAT(published, IsEmpty());
    EXPECT_EQ(off.NotReady(), "");
    off.Pause();
    EXPECT_EQ(off.Status().state, State::off);
}

} // namespace
} // namespace VtxQel

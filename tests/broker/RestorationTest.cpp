#include "broker/Restoration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace VtxQel
{

namespace
{

DesiredTopology Wanted()
{
    DesiredTopology desired;
    desired.exchanges.push_back({"ex", "topic", false});
    desired.ownQueues.resize(2);
    desired.ownQueues[0].name = "own1";
    desired.ownQueues[1].name = "own2";
    desired.bindings = {{"own1", "ex", "a"}, {"own1", "ex", "b"}, {"own2", "ex", "c"}};
    desired.applicationQueues.resize(1);
    desired.applicationQueues[0].name = "app";
    return desired;
}

std::string NameOf(const TopologyRequest& request)
{
    return request.kind == TopologyRequest::Kind::declareExchange ? request.exchange.name
           : request.kind == TopologyRequest::Kind::bind          ? request.binding.topic
                                                                  : request.queue.name;
}

/** What can be carried out now. */
std::vector<Restoration::Request> Take(Restoration& restoration)
{
    std::vector<Restoration::Request> taken;
    while (auto request = restoration.Next())
    {
        taken.push_back(request);
    }
    return taken;
}

std::vector<std::string> Names(const std::vector<Restoration::Request>& requests)
{
    std::vector<std::string> names;
    names.reserve(requests.size());
    for (const auto& request : requests)
    {
        names.push_back(NameOf(*request));
    }
    return names;
}

/** Carries out everything that can be, up to and with the step that starts with this item. */
std::vector<std::string> Carry(Restoration& restoration, const std::string& until = "")
{
    std::vector<std::string> all;
    for (auto taken = Take(restoration); !taken.empty(); taken = Take(restoration))
    {
        for (const auto& request : taken)
        {
            all.push_back(NameOf(*request));
            restoration.Finished();
        }
        if (Names(taken).front() == until)
        {
            break;
        }
    }
    return all;
}

} // namespace

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Restoration, EachStepWaitsForTheOneBefore)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    EXPECT_THAT(Names(Take(restoration)), ElementsAre("ex"));
    EXPECT_THAT(Names(Take(restoration)), IsEmpty());
    restoration.Finished();
    EXPECT_THAT(Names(Take(restoration)), ElementsAre("own1", "own2"));
    restoration.Finished();
    EXPECT_FALSE(restoration.IsBaseReady());
    EXPECT_THAT(Names(Take(restoration)), IsEmpty());
    restoration.Finished();
    EXPECT_THAT(Names(Take(restoration)), ElementsAre("a", "b", "c"));
    EXPECT_TRUE(restoration.IsBaseReady());
    for (int i = 0; i < 3; ++i)
    {
        restoration.Finished();
    }
    EXPECT_THAT(Names(Take(restoration)), ElementsAre("app"));
    EXPECT_FALSE(restoration.IsDone());
    restoration.Finished();
    EXPECT_THAT(Names(Take(restoration)), IsEmpty());
    EXPECT_TRUE(restoration.IsDone());
}

TEST(Restoration, AnOwnQueueThatIsDelayedHoldsUpTheRest)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    Carry(restoration, "ex");
    const auto queues = Take(restoration);
    restoration.Finished();
    restoration.Delayed(*queues[1]);
    EXPECT_THAT(Names(Take(restoration)), IsEmpty());
    EXPECT_FALSE(restoration.IsBaseReady());
    restoration.Resume(queues[1]);
    EXPECT_THAT(Carry(restoration), ElementsAre("own2", "a", "b", "c", "app"));
}

TEST(Restoration, ABindingThatIsDelayedHoldsUpOnlyTheEnd)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    Carry(restoration, "own1");
    const auto bindings = Take(restoration);
    restoration.Delayed(*bindings[0]);
    restoration.Finished();
    restoration.Finished();
    EXPECT_THAT(Carry(restoration), ElementsAre("app"));
    EXPECT_FALSE(restoration.IsDone());
    restoration.Resume(bindings[0]);
    EXPECT_THAT(Carry(restoration), ElementsAre("a"));
    EXPECT_TRUE(restoration.IsDone());
}

TEST(Restoration, AnApplicationsQueueThatIsDelayedHoldsUpNothing)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    Carry(restoration, "a");
    const auto queues = Take(restoration);
    ASSERT_THAT(Names(queues), ElementsAre("app"));
    restoration.Delayed(*queues[0]);
    EXPECT_THAT(Names(Take(restoration)), IsEmpty());
    EXPECT_TRUE(restoration.IsDone());
    EXPECT_FALSE(restoration.IsComplete());
    restoration.Resume(queues[0]);
    EXPECT_THAT(Carry(restoration), ElementsAre("app"));
    EXPECT_TRUE(restoration.IsComplete());
}

TEST(Restoration, ADelayedQueueThatIsGivenUpIsLeftOut)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    Carry(restoration, "a");
    const auto queues = Take(restoration);
    restoration.Delayed(*queues[0]);
    EXPECT_THAT(Names(Take(restoration)), IsEmpty());
    restoration.GiveUpQueue("app");
    restoration.Resume(queues[0]);
    EXPECT_THAT(Carry(restoration), IsEmpty());
    EXPECT_TRUE(restoration.IsComplete());
}

TEST(Restoration, WhatIsGivenUpMeanwhileIsLeftOut)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    Carry(restoration, "ex");
    restoration.GiveUp({"own1", "ex", "b"});
    restoration.GiveUp({"own2", "ex", "c"});
    restoration.GiveUpQueue("app");
    restoration.Want({"own2", "ex", "c"});
    EXPECT_THAT(Carry(restoration), ElementsAre("own1", "own2", "a", "c"));
    EXPECT_TRUE(restoration.IsDone());
}

TEST(Restoration, WhatWasGivenUpCountsForOneRestorationOnly)
{
    Restoration restoration;
    restoration.GiveUp({"own1", "ex", "a"});
    restoration.Begin(Wanted());
    EXPECT_THAT(Carry(restoration), ElementsAre("ex", "own1", "own2", "b", "c", "app"));
    restoration.Begin(Wanted());
    EXPECT_THAT(Carry(restoration), ElementsAre("ex", "own1", "own2", "a", "b", "c", "app"));
}

TEST(Restoration, FewItemsAreUnderWayAtATime)
{
    DesiredTopology desired;
    for (int i = 0; i < 1000; ++i)
    {
        desired.bindings.push_back({"q", "ex", std::to_string(i)});
    }
    Restoration restoration;
    restoration.Begin(desired);
    const std::size_t window = Take(restoration).size();
    EXPECT_LE(window, 64U);
    restoration.Finished();
    EXPECT_EQ(Take(restoration).size(), 1U);
}

TEST(Restoration, BindingsOfAQueueMadeAgainAreRestoredAgain)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    Carry(restoration);
    ASSERT_TRUE(restoration.IsDone());
    restoration.AddBindings(Wanted(), "own1");
    EXPECT_FALSE(restoration.IsDone());
    EXPECT_THAT(Carry(restoration), ElementsAre("a", "b"));
    EXPECT_TRUE(restoration.IsDone());
}

TEST(Restoration, AbandonedMeansNothingUntilTheNextBeginning)
{
    Restoration restoration;
    restoration.Begin(Wanted());
    Take(restoration);
    restoration.Abandon();
    EXPECT_FALSE(restoration.IsBaseReady());
    restoration.Begin(Wanted());
    EXPECT_THAT(Carry(restoration).size(), 7U);
}

} // namespace VtxQel

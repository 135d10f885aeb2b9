#include "common/Turn.h"

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include <thread>

namespace VtxQel
{

namespace
{

struct CountingTask : Turn::Task
{
    void OnTurnEnd() override { ++calls; }
    int calls = 0;
};

} // namespace

TEST(TurnTest, WithoutATurnATaskIsDoneAtOnce)
{
    const auto task = boost::make_shared<CountingTask>();
    Turn::AtEnd(task);
    Turn::AtEnd(task);
    EXPECT_EQ(task->calls, 2);
}

TEST(TurnTest, InATurnEachTaskIsDoneOnceAtItsEnd)
{
    const auto one = boost::make_shared<CountingTask>();
    const auto other = boost::make_shared<CountingTask>();
    {
        const Turn turn;
        Turn::AtEnd(one);
        Turn::AtEnd(other);
        Turn::AtEnd(one);
        EXPECT_EQ(one->calls, 0);
    }
    EXPECT_EQ(one->calls, 1);
    EXPECT_EQ(other->calls, 1);
    Turn::AtEnd(one);
    EXPECT_EQ(one->calls, 2);
}

TEST(TurnTest, ATurnWithinAnotherEndsWithThat)
{
    const auto task = boost::make_shared<CountingTask>();
    {
        const Turn around;
        {
            const Turn turn;
            Turn::AtEnd(task);
        }
        EXPECT_EQ(task->calls, 0);
        Turn::AtEnd(task);
    }
    EXPECT_EQ(task->calls, 1);
}

TEST(TurnTest, ATaskThatPutsOffAnotherOneFindsTheTurnOver)
{
    struct Chained : Turn::Task
    {
        void OnTurnEnd() override { Turn::AtEnd(next); }
        boost::shared_ptr<CountingTask> next = boost::make_shared<CountingTask>();
    };
    const auto first = boost::make_shared<Chained>();
    {
        const Turn turn;
        Turn::AtEnd(first);
    }
    EXPECT_EQ(first->next->calls, 1);
}

TEST(TurnTest, ATurnIsItsThreadsOwn)
{
    const auto task = boost::make_shared<CountingTask>();
    const Turn turn;
    std::thread([&task] { Turn::AtEnd(task); }).join();
    EXPECT_EQ(task->calls, 1);
}

TEST(TurnTest, ATaskLivesUntilTheEndOfTheTurn)
{
    boost::weak_ptr<CountingTask> weak;
    {
        const Turn turn;
        auto task = boost::make_shared<CountingTask>();
        weak = task;
        Turn::AtEnd(task);
        task.reset();
        EXPECT_FALSE(weak.expired());
    }
    EXPECT_TRUE(weak.expired());
}

} // namespace VtxQel

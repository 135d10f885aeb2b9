#include "broker/Lanes.h"

#include "broker/SilentListener.h"
#include "common/MessageTypes.h"
#include "common/Turn.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace VtxQel
{
namespace
{

struct CountingTask : Turn::Task
{
    void OnTurnEnd() override { ++calls; }
    std::atomic<int> calls{0};
};

/** Puts the task off for each message, and notes how often it had been done by then. */
class PuttingOff : public MsgHandler
{
  public:
    PuttingOff(boost::shared_ptr<CountingTask> task, std::size_t expected)
        : m_task(std::move(task)), m_expected(expected)
    {
    }
    bool Callback(boost::shared_ptr<RmqMessage>) override
    {
        Turn::AtEnd(m_task);
        m_callsSeen.push_back(m_task->calls);
        if (m_callsSeen.size() == m_expected)
        {
            m_done.set_value(m_callsSeen);
        }
        return true;
    }
    /** What was noted for each message, once all have come. */
    std::vector<int> CallsSeen() { return m_done.get_future().get(); }

  private:
    const boost::shared_ptr<CountingTask> m_task;
    const std::size_t m_expected;
    std::vector<int> m_callsSeen;
    std::promise<std::vector<int>> m_done;
};

class LanesTest : public testing::Test
{
  protected:
    LanesTest()
    {
        info->clientQueue = "normal";
        info->priorityQueue = "urgent";
    }

    /** What the handler saw of its task at each of so many messages, which wait when the lanes start. */
    std::vector<int> Handle(std::size_t count, std::string_view type, const std::string& queue = "normal")
    {
        const auto handler = boost::make_shared<PuttingOff>(task, count);
        registry->Add("normal", boost::make_shared<RoutingRegistryEntry>(handler, channelPriorityNormal));
        Lanes lanes(registry, info, worker);
        for (std::size_t number = 0; number < count; ++number)
        {
            IncomingMessage incoming;
            incoming.queue = queue;
            incoming.source = source;
            incoming.properties = boost::make_shared<RmqProperties>();
            incoming.properties->type = type;
            lanes.Push(boost::make_shared<BrokerMessage>(std::move(incoming), settlement, names));
        }
        lanes.Start();
        return handler->CallsSeen();
    }

    const boost::shared_ptr<CountingTask> task = boost::make_shared<CountingTask>();
    const boost::shared_ptr<RoutingRegistry> registry = boost::make_shared<RoutingRegistry>();
    const boost::shared_ptr<RmqInfo> info = boost::make_shared<RmqInfo>();
    const std::shared_ptr<const DeliverySource> source = std::make_shared<DeliverySource>();
    SilentListener listener;
    BrokerLink link{{}, listener};
    Scheduler worker{"test"};
    Settlement settlement{link, *info, worker, [](const std::string&) { return true; }};
    const ApplicationNames names = [](const std::string&, const std::string&, const std::string&) { return "web"; };
};

} // namespace

TEST_F(LanesTest, WhatWaitsForApplicationsIsOneTurn)
{
    EXPECT_EQ(Handle(3, "order"), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(task->calls, 1) << "when the lane has ended";
}

TEST_F(LanesTest, SoIsWhatWaitsInThePriorityQueue)
{
    EXPECT_EQ(Handle(3, "order", "urgent"), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(task->calls, 1);
}

TEST_F(LanesTest, ALongTurnEndsBeforeAllIsDone)
{
    const std::vector<int> seen = Handle(100, "order");
    EXPECT_EQ(seen.front(), 0);
    EXPECT_GT(seen.back(), 0);
    EXPECT_LT(seen.back(), 10);
}

TEST_F(LanesTest, NothingIsPutOffWhereAHandlerMayWaitForTheBroker)
{
    for (const std::string_view type : {APP_INIT_CONFIG_TYPE, PING_REQUEST_TYPE})
    {
        task->calls = 0;
        EXPECT_EQ(Handle(3, type), (std::vector<int>{1, 2, 3})) << type;
    }
}

} // namespace VtxQel

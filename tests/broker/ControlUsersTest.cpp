#include "broker/ControlUsers.h"

#include "broker/BrokerMessage.h"
#include "broker/Settlement.h"
#include "broker/SilentListener.h"
#include "common/MessageTypes.h"
#include "fakes/LogCapture.h"

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace VtxQel
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ControlUsersTest : public testing::TestWithParam<std::string_view>
{
  protected:
    static RmqInfo Info()
    {
        RmqInfo info;
        info.clientQueue = "normal";
        return info;
    }

    boost::shared_ptr<BrokerMessage> Message(
        std::string_view type, const std::string& user, const std::string& queue = "normal", RmqTable headers = {})
    {
        IncomingMessage incoming;
        incoming.queue = queue;
        incoming.properties = boost::make_shared<RmqProperties>();
        incoming.properties->type = type;
        incoming.properties->userId = user;
        incoming.properties->headers = std::move(headers);
        return boost::make_shared<BrokerMessage>(std::move(incoming), settlement, names);
    }

    std::string Refusal(const boost::shared_ptr<BrokerMessage>& message) { return users.Refusal(*message); }

    SilentListener listener;
    BrokerLink link{{}, listener};
    Scheduler worker{"test"};
    Settlement settlement{link, Info(), worker, [](const std::string&) { return true; }};
    const ApplicationNames names = [](const std::string&, const std::string&, const std::string&) { return "web"; };
    std::vector<std::function<void()>> minutes;
    const MinuteLog::After after = [this](std::chrono::seconds, std::function<void()> task)
    { minutes.push_back(std::move(task)); };
    ControlUsers users{{"plane", "second"}, after};
};

TEST_P(ControlUsersTest, OnlyListedUsersPass)
{
    EXPECT_THAT(Refusal(Message(GetParam(), "plane")), IsEmpty());
    EXPECT_THAT(Refusal(Message(GetParam(), "second")), IsEmpty());
    EXPECT_EQ(users.Refused(), 0U);
    EXPECT_THAT(Refusal(Message(GetParam(), "planet")), HasSubstr("planet is not one that broker.control_users lists"));
    EXPECT_THAT(Refusal(Message(GetParam(), "")), HasSubstr("does not say who sent it"));
    EXPECT_EQ(users.Refused(), 2U);
}

TEST_P(ControlUsersTest, TheUserThatAParkedCopyNamesIsNotBelieved)
{
    const RmqTable forged = {{Header::USER_ID, RmqValue::String("plane")}};
    EXPECT_THAT(Refusal(Message(GetParam(), "", "normal.parked.web", forged)), HasSubstr("parking queue"));
    EXPECT_THAT(Refusal(Message(GetParam(), "plane", "normal.parked.web", forged)), HasSubstr("parking queue"));
    EXPECT_EQ(users.Refused(), 2U);
}

TEST_P(ControlUsersTest, AnEmptyListIsEverybody)
{
    ControlUsers everybody({}, after);
    EXPECT_THAT(everybody.Refusal(*Message(GetParam(), "")), IsEmpty());
    EXPECT_THAT(everybody.Refusal(*Message(GetParam(), "anybody")), IsEmpty());
    EXPECT_EQ(everybody.Refused(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    EveryControlType, ControlUsersTest, testing::Values(PING_REQUEST_TYPE, REASSIGN_HINT_TYPE, APP_INIT_CONFIG_TYPE),
    [](const auto& type) { return std::string(type.param.substr(type.param.rfind('.') + 1)); });

TEST_F(ControlUsersTest, WhatIsNotForControlPassesWhoeverSentIt)
{
    const std::string almost = std::string(PING_REQUEST_TYPE) + "s";
    for (const std::string_view type :
         {std::string_view(), std::string_view("order"), PING_REPLY_TYPE, APP_INIT_REQUEST_TYPE,
          std::string_view(almost)})
    {
        EXPECT_THAT(Refusal(Message(type, "")), IsEmpty()) << type;
        EXPECT_THAT(Refusal(Message(type, "stranger")), IsEmpty()) << type;
        EXPECT_THAT(Refusal(Message(type, "", "normal.parked.web")), IsEmpty()) << type;
    }
    EXPECT_EQ(users.Refused(), 0U);
}

TEST_F(ControlUsersTest, ManyRefusalsAreOneLineAMinuteAndTheNameCannotForgeOne)
{
    const Fakes::LogCapture log(4);
    for (int i = 0; i < 5; ++i)
    {
        Refusal(Message(PING_REQUEST_TYPE, "eve\n[forged]"));
    }
    EXPECT_THAT(
        log.Lines(), ElementsAre(HasSubstr("a control message was refused and dead-lettered: the broker user "
                                           "eve\\x0a[forged] is not one")));
    ASSERT_EQ(minutes.size(), 1U);
    minutes.front()();
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(testing::_, HasSubstr("4 control messages were refused and dead-lettered in the last minute")));
    EXPECT_EQ(users.Refused(), 5U);
}

} // namespace
} // namespace VtxQel

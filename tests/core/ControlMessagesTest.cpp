#include "common/QelException.h"
#include "core/HandlerTest.h"

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

class PingFromMPCallback : public HandlerTest
{
};

TEST_F(PingFromMPCallback, TheReplyGoesToTheDefaultExchangeWithReplyToAndCorrelationId)
{
    const auto ping = Message(pingType);
    ping->properties->replyTo = "reply.queue";
    ping->properties->correlationId = "id-7";
    EXPECT_TRUE(handler.Callback(ping));
    EXPECT_EQ(journal.NotesOf({"broker.", "dispatcher."}), Strings({"broker.SendPingReply(, reply.queue, id-7)"}));
}

TEST_F(PingFromMPCallback, EmptyHeaderFieldsArePassedOnAsTheyAre)
{
    EXPECT_TRUE(handler.Callback(Message(pingType)));
    EXPECT_EQ(journal.NotesOf({"broker."}), Strings({"broker.SendPingReply(, , )"}));
}

TEST_F(PingFromMPCallback, AReplyThatCouldNotBeSentYieldsFalseAndNoLine)
{
    const LogCapture log(4);
    rmqClient->answers.Refuse("broker.SendPingReply(, , )");
    EXPECT_FALSE(handler.Callback(Message(pingType)));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(PingFromMPCallback, WithoutTheBrokerClientItIsNamedAndNothingElseDone)
{
    rmqClient.reset();
    const auto ping = Message(pingType);
    EXPECT_EQ(Thrown<QelScopeException>([&] { handler.PingFromMPCallback(ping); }), typeid(RmqClient).name());
    EXPECT_EQ(journal.Notes(), Strings({"handler.PingFromMPCallback()"}));
}

TEST_F(PingFromMPCallback, NoOtherCollaboratorIsNeeded)
{
    routingRegistry.reset();
    appRegistry.reset();
    appDispatcher.reset();
    rmqInfo.reset();
    endpointController.reset();
    EXPECT_TRUE(handler.PingFromMPCallback(Message(pingType)));
}

TEST_F(PingFromMPCallback, ThePropertiesAreFetchedForEachFieldAndKeptDuringTheSend)
{
    const auto ping = Message(pingType);
    bool kept = false;
    rmqClient->answers.On(
        "broker.SendPingReply(, , )",
        [&]
        {
            kept = !ping->lastProperties.expired();
            return true;
        });
    handler.PingFromMPCallback(ping);
    EXPECT_TRUE(kept);
    EXPECT_EQ(
        journal.Notes(), Strings(
                             {"handler.PingFromMPCallback()", "message.GetProperties()", "message.GetProperties()",
                              "broker.SendPingReply(, , )"}));
}

TEST_F(PingFromMPCallback, TheBrokerClientIsKeptAliveDuringTheSend)
{
    const boost::weak_ptr<RmqClient> client = rmqClient;
    bool alive = false;
    rmqClient->answers.On(
        "broker.SendPingReply(, , )",
        [&]
        {
            rmqClient.reset();
            alive = !client.expired();
            return true;
        });
    EXPECT_TRUE(handler.PingFromMPCallback(Message(pingType)));
    EXPECT_TRUE(alive);
    EXPECT_TRUE(client.expired());
}

TEST_F(PingFromMPCallback, WhatTheSendThrowsLeavesIt)
{
    rmqClient->answers.Throw("broker.SendPingReply(, , )", RmqConnectionException("away"));
    EXPECT_EQ(Thrown<RmqConnectionException>([&] { handler.Callback(Message(pingType)); }), "away");
}

class ReassignHintCallback : public HandlerTest
{
};

TEST_F(ReassignHintCallback, TheFrontEndReassignsWithSixAndAHundredAndEighty)
{
    const LogCapture log(4);
    EXPECT_TRUE(handler.Callback(Message(hintType)));
    EXPECT_EQ(
        journal.NotesOf({"controller.", "fe.", "dispatcher.", "broker."}),
        Strings({"controller.FE()", "fe.Reassign(6, 180)"}));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(ReassignHintCallback, TheControllerHandsOutACopyOfItsReference)
{
    const boost::weak_ptr<FE> handedOut = endpointController->EndpointController::FE();
    EXPECT_EQ(handedOut.lock(), fe);
}

TEST_F(ReassignHintCallback, TheMessageIsNotRead)
{
    EXPECT_TRUE(handler.ReassignHintCallback(Message(hintType, "\xff garbage")));
    EXPECT_EQ(journal.NotesOf({"message."}), Strings());
    EXPECT_TRUE(handler.QelMsgHandler::ReassignHintCallback(nullptr));
}

TEST_F(ReassignHintCallback, TheResultOfReassignIsIgnored)
{
    fe->answers.Refuse("fe.Reassign(6, 180)");
    EXPECT_TRUE(handler.Callback(Message(hintType)));
}

TEST_F(ReassignHintCallback, TwoHintsReassignTwice)
{
    handler.Callback(Message(hintType));
    handler.Callback(Message(hintType));
    EXPECT_EQ(journal.NotesOf({"fe."}), Strings({"fe.Reassign(6, 180)", "fe.Reassign(6, 180)"}));
}

TEST_F(ReassignHintCallback, WithoutTheControllerItIsNamed)
{
    endpointController.reset();
    EXPECT_EQ(
        Thrown<QelScopeException>([&] { handler.Callback(Message(hintType)); }), typeid(EndpointController).name());
}

TEST_F(ReassignHintCallback, WithoutTheFrontEndItIsNamedAndNotTheController)
{
    fe.reset();
    EXPECT_EQ(Thrown<QelScopeException>([&] { handler.Callback(Message(hintType)); }), typeid(FE).name());
}

TEST_F(ReassignHintCallback, WhatReassignThrowsLeavesIt)
{
    fe->answers.Throw("fe.Reassign(6, 180)", RmqException("no"));
    EXPECT_EQ(Thrown<RmqException>([&] { handler.Callback(Message(hintType)); }), "no");
}

TEST_F(ReassignHintCallback, ControllerAndFrontEndAreKeptAliveDuringTheCall)
{
    const boost::weak_ptr<EndpointController> controller = endpointController;
    const boost::weak_ptr<FE> frontEnd = fe;
    bool alive = false;
    fe->answers.On(
        "fe.Reassign(6, 180)",
        [&]
        {
            endpointController.reset();
            fe.reset();
            alive = !controller.expired() && !frontEnd.expired();
            return true;
        });
    EXPECT_TRUE(handler.ReassignHintCallback(Message(hintType)));
    EXPECT_TRUE(alive);
}

} // namespace
} // namespace VtxQel

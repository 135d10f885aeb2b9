#include "qelctl/DeadLetter.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <string>

namespace VtxQel
{

namespace
{

RmqTable AgentHeaders()
{
    return {
        {"mine", RmqValue::String("kept")},
        {"x-qel-reason", RmqValue::String("cannot be read")},
        {"x-qel-application", RmqValue::String("web")},
        {"x-qel-tries", RmqValue::Integer(3)},
        {"x-qel-time", RmqValue::Timestamp(1700000000)},
        {"x-qel-exchange", RmqValue::String("qel")},
        {"x-qel-routing-key", RmqValue::String("a.one")},
        {"x-qel-queue", RmqValue::String("qel.client.h")},
        {"x-qel-user-id", RmqValue::String("plane")},
        {"x-qel-expiration", RmqValue::String("500")},
        {"x-qel-cc", {'A', RmqArray{RmqValue::String("copy")}}}};
}

RmqTable BrokerHeaders()
{
    const RmqTable newest = {
        {"reason", RmqValue::String("expired")},
        {"time", RmqValue::Timestamp(5)},
        {"queue", RmqValue::String("q")},
        {"exchange", RmqValue::String("e")},
        {"routing-keys", {'A', RmqArray{RmqValue::String("k"), RmqValue::String("cc")}}},
        {"original-expiration", RmqValue::String("7")}};
    const RmqTable older = {{"reason", RmqValue::String("rejected")}};
    return {
        {"x-death", {'A', RmqArray{{'F', newest}, {'F', older}}}},
        {"x-first-death-reason", RmqValue::String("rejected")}};
}

IncomingMessage Message(const RmqTable& headers)
{
    IncomingMessage message;
    message.properties = boost::make_shared<RmqProperties>();
    message.properties->headers = headers;
    message.properties->messageId = "m1";
    message.properties->userId = "guest";
    message.body = "body";
    return message;
}

} // namespace

TEST(DeadLetter, TheAgentsHeadersAreRead)
{
    const DeadLetter letter = DeadLetter::Of(*Message(AgentHeaders()).properties);

    EXPECT_EQ(letter.reason, "cannot be read");
    EXPECT_EQ(letter.application, "web");
    EXPECT_EQ(letter.tries, 3U);
    EXPECT_EQ(letter.time, 1700000000U);
    EXPECT_EQ(letter.exchange, "qel");
    EXPECT_EQ(letter.routingKey, "a.one");
    EXPECT_EQ(letter.queue, "qel.client.h");
    EXPECT_EQ(letter.userId, "plane");
    EXPECT_EQ(letter.expiration, "500");
}

TEST(DeadLetter, TheBrokersNewestRecordIsRead)
{
    const DeadLetter letter = DeadLetter::Of(*Message(BrokerHeaders()).properties);

    EXPECT_EQ(letter.reason, "the broker: expired");
    EXPECT_EQ(letter.application, "");
    EXPECT_FALSE(letter.tries);
    EXPECT_EQ(letter.time, 5U);
    EXPECT_EQ(letter.exchange, "e");
    EXPECT_EQ(letter.routingKey, "k");
    EXPECT_EQ(letter.queue, "q");
    EXPECT_EQ(letter.userId, "guest");
    EXPECT_EQ(letter.expiration, "7");
}

TEST(DeadLetter, TheAgentsHeadersCountBeforeAnOlderRecordOfTheBroker)
{
    RmqTable headers = BrokerHeaders();
    const RmqTable ours = AgentHeaders();
    headers.insert(headers.end(), ours.begin(), ours.end());

    EXPECT_EQ(DeadLetter::Of(*Message(headers).properties).reason, "cannot be read");
}

TEST(DeadLetter, HeadersOfOtherKindsThanOursAreTakenAsUnknown)
{
    RmqTable headers = AgentHeaders();
    headers[1].second = RmqValue::Integer(1);
    headers[3].second = RmqValue::Integer(-1);
    headers[4].second = RmqValue::String("yesterday");
    const DeadLetter letter = DeadLetter::Of(*Message(headers).properties);

    EXPECT_EQ(letter.reason, "");
    EXPECT_FALSE(letter.tries);
    EXPECT_FALSE(letter.time);

    const RmqTable odd = {{"x-death", {'A', RmqArray{RmqValue::String("no table")}}}};
    EXPECT_EQ(DeadLetter::Of(*Message(odd).properties).reason, "");
}

TEST(DeadLetterFilter, EverythingGivenHasToMatch)
{
    const IncomingMessage message = Message(AgentHeaders());
    const DeadLetter letter = DeadLetter::Of(*message.properties);
    const auto matches = [&](const DeadLetterFilter& filter) { return filter.Matches(letter, *message.properties); };

    EXPECT_TRUE(matches({}));
    EXPECT_TRUE(matches({"web", "be read", "m1"}));
    EXPECT_FALSE(matches({"we", {}, {}}));
    EXPECT_FALSE(matches({"web", "other", {}}));
    EXPECT_FALSE(matches({"web", {}, "m"}));
    EXPECT_TRUE(DeadLetterFilter().IsEmpty());
    EXPECT_FALSE((DeadLetterFilter{{}, "r", {}}.IsEmpty()));
}

TEST(MakeReplay, ForTheApplicationItGoesToTheClientQueueWithoutTheTraces)
{
    IncomingMessage message = Message(AgentHeaders());
    message.properties->headers.emplace_back("x-delivery-count", RmqValue::Integer(4));
    message.properties->headers.emplace_back("CC", RmqValue{'A', RmqArray{RmqValue::String("other")}});

    const std::optional<OutgoingMessage> replay = MakeReplay(message, ReplayTo::best, "qel.client.h");

    ASSERT_TRUE(replay);
    EXPECT_EQ(replay->exchange, "");
    EXPECT_EQ(replay->routingKey, "qel.client.h");
    EXPECT_TRUE(replay->mandatory);
    EXPECT_EQ(replay->properties.appId, "web");
    EXPECT_EQ(replay->properties.messageId, "m1");
    EXPECT_EQ(replay->properties.userId, "");
    EXPECT_EQ(replay->properties.expiration, "500");
    EXPECT_EQ(replay->properties.headers, (RmqTable{{"mine", RmqValue::String("kept")}}));
    EXPECT_EQ(replay->body, "body");
}

TEST(MakeReplay, AtTheOriginalPlaceItIsCopiedAgain)
{
    IncomingMessage message = Message(AgentHeaders());

    const std::optional<OutgoingMessage> replay = MakeReplay(message, ReplayTo::original, "qel.client.h");

    ASSERT_TRUE(replay);
    EXPECT_EQ(replay->exchange, "qel");
    EXPECT_EQ(replay->routingKey, "a.one");
    EXPECT_EQ(replay->properties.appId, "");
    EXPECT_EQ(
        replay->properties.headers,
        (RmqTable{{"mine", RmqValue::String("kept")}, {"CC", {'A', RmqArray{RmqValue::String("copy")}}}}));
}

TEST(MakeReplay, WhatNamesNobodyGoesWhereItCameFrom)
{
    IncomingMessage message = Message(BrokerHeaders());

    const std::optional<OutgoingMessage> replay = MakeReplay(message, ReplayTo::best, "qel.client.h");

    ASSERT_TRUE(replay);
    EXPECT_EQ(replay->exchange, "e");
    EXPECT_EQ(replay->routingKey, "k");
    EXPECT_EQ(replay->properties.expiration, "7");
    EXPECT_EQ(replay->properties.headers, RmqTable());
}

TEST(MakeReplay, WithoutAPlaceToGoTheMessageIsUnchanged)
{
    IncomingMessage stray = Message({});
    EXPECT_FALSE(MakeReplay(stray, ReplayTo::best, "q"));
    EXPECT_FALSE(MakeReplay(stray, ReplayTo::original, "q"));
    EXPECT_FALSE(MakeReplay(stray, ReplayTo::application, "q"));
    EXPECT_EQ(stray.body, "body");
}

} // namespace VtxQel

#include "apps/MessageConversion.h"

#include "apps/AppsFakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>

namespace VtxQel
{
namespace
{

namespace proto = qel::apps::v1;
using testing::HasSubstr;

RmqProperties FullProperties()
{
    RmqProperties properties;
    properties.type = "type";
    properties.replyTo = "reply";
    properties.correlationId = "correlation";
    properties.appId = "app";
    properties.messageId = "message";
    properties.userId = "user";
    properties.contentType = "text/plain";
    properties.contentEncoding = "gzip";
    properties.expiration = "60000";
    properties.deliveryMode = 2;
    properties.priority = 0;
    properties.timestamp = 1700000000;
    properties.headers = {
        {"yes", RmqValue::Boolean(true)},
        {"integer", RmqValue::Integer(std::numeric_limits<std::int64_t>::min())},
        {"real", {'d', 1.5}},
        {"text", RmqValue::String(std::string("\0\xFF", 2))},
        {"time", RmqValue::Timestamp(5)},
        {"decimal", {'D', RmqDecimal{2, 314}}},
        {"nothing", {}},
        {"table", {'F', RmqTable{{"inner", RmqValue::Integer(1)}}}},
        {"array", {'A', RmqArray{RmqValue::Integer(1), RmqValue::String("x")}}},
        {"yes", RmqValue::Boolean(false)}};
    return properties;
}

void ExpectEqual(const RmqProperties& left, const RmqProperties& right)
{
    EXPECT_EQ(left.type, right.type);
    EXPECT_EQ(left.replyTo, right.replyTo);
    EXPECT_EQ(left.correlationId, right.correlationId);
    EXPECT_EQ(left.appId, right.appId);
    EXPECT_EQ(left.messageId, right.messageId);
    EXPECT_EQ(left.userId, right.userId);
    EXPECT_EQ(left.contentType, right.contentType);
    EXPECT_EQ(left.contentEncoding, right.contentEncoding);
    EXPECT_EQ(left.expiration, right.expiration);
    EXPECT_EQ(left.deliveryMode, right.deliveryMode);
    EXPECT_EQ(left.priority, right.priority);
    EXPECT_EQ(left.timestamp, right.timestamp);
    EXPECT_TRUE(left.headers == right.headers);
}

TEST(MessageConversion, PropertiesComeBackAsTheyWent)
{
    const RmqProperties properties = FullProperties();
    proto::Properties there;
    ToProto(properties, there);
    proto::Properties back;
    ASSERT_TRUE(back.ParseFromString(there.SerializeAsString()));
    RmqProperties again;
    EXPECT_EQ(FromProto(back, again), "");
    ExpectEqual(again, properties);
}

TEST(MessageConversion, AbsentPropertiesStayAbsent)
{
    proto::Properties there;
    ToProto(RmqProperties(), there);
    EXPECT_FALSE(there.has_delivery_mode());
    EXPECT_FALSE(there.has_priority());
    EXPECT_FALSE(there.has_timestamp());
    RmqProperties again;
    EXPECT_EQ(FromProto(there, again), "");
    ExpectEqual(again, RmqProperties());
}

TEST(MessageConversion, ADeliveryKeepsNothingOfTheOneWhosePlaceItTakes)
{
    AnswerLog log;
    const auto full =
        boost::make_shared<FakeDelivery>(log, FakeMessage{"body", "client", "key", {}, 1, true, FullProperties()});
    const auto empty = boost::make_shared<FakeDelivery>(log, FakeMessage{"", "client"});
    proto::Delivery used;
    ToProto(SessionDelivery{1, full, 1, true}, true, used);
    used.set_body("left");
    ToProto(SessionDelivery{2, empty}, false, used);
    proto::Delivery fresh;
    ToProto(SessionDelivery{2, empty}, false, fresh);
    EXPECT_EQ(used.SerializeAsString(), fresh.SerializeAsString());
}

TEST(MessageConversion, AnUnsignedHeaderComesBackAsASignedOne)
{
    RmqProperties properties;
    properties.headers = {{"u", {'i', std::uint64_t{7}}}};
    proto::Properties there;
    ToProto(properties, there);
    EXPECT_EQ(there.headers(0).value().unsigned_integer(), 7U);
    RmqProperties again;
    EXPECT_EQ(FromProto(there, again), "");
    EXPECT_TRUE(again.headers[0].second == RmqValue::Integer(7));
}

TEST(MessageConversion, TablesFromTheBrokerNestedBeyondSenseEndInANull)
{
    RmqValue value = RmqValue::Integer(1);
    for (int depth = 0; depth < 50; ++depth)
    {
        value = {'F', RmqTable{{"t", value}}};
    }
    RmqProperties properties;
    properties.headers = {{"t", value}};
    proto::Properties there;
    ToProto(properties, there);
    int depth = 0;
    const proto::HeaderValue* inner = &there.headers(0).value();
    while (inner->has_table())
    {
        inner = &inner->table().headers(0).value();
        ++depth;
    }
    EXPECT_TRUE(inner->null());
    EXPECT_EQ(depth, 15);
}

TEST(MessageConversion, TablesOfAnApplicationNestedBeyondSenseAreRefused)
{
    proto::Properties properties;
    proto::HeaderValue* value = properties.add_headers()->mutable_value();
    for (int depth = 0; depth < 16; ++depth)
    {
        value = value->mutable_array()->add_values();
    }
    RmqProperties out;
    EXPECT_EQ(FromProto(properties, out), "headers are nested more than 16 levels deep");
}

struct WrongProperties
{
    const char* name;
    std::function<void(proto::Properties&)> fill;
    const char* text;
};

class WrongPropertiesTest : public testing::TestWithParam<WrongProperties>
{
};

TEST_P(WrongPropertiesTest, AreRefusedWithTheReason)
{
    proto::Properties properties;
    GetParam().fill(properties);
    RmqProperties out;
    EXPECT_THAT(FromProto(properties, out), HasSubstr(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongPropertiesTest,
    testing::Values(
        WrongProperties{
            "LongType", [](proto::Properties& properties) { properties.set_type(std::string(256, 'x')); },
            "type has 256 bytes, AMQP allows 255"},
        WrongProperties{
            "LongHeaderName",
            [](proto::Properties& properties) { properties.add_headers()->set_name(std::string(256, 'x')); },
            "a header's name has 256 bytes"},
        WrongProperties{
            "DeliveryMode", [](proto::Properties& properties) { properties.set_delivery_mode(256); },
            "delivery_mode is 256, AMQP allows 0 to 255"},
        WrongProperties{
            "Expiration", [](proto::Properties& properties) { properties.set_expiration("1s"); },
            "expiration is not a number of milliseconds"},
        WrongProperties{
            "Timestamp", [](proto::Properties& properties) { properties.mutable_timestamp()->set_seconds(-1); },
            "timestamp lies before 1970"},
        WrongProperties{
            "Unsigned",
            [](proto::Properties& properties)
            { properties.add_headers()->mutable_value()->set_unsigned_integer(std::uint64_t{1} << 63U); },
            "unsigned_integer is above 9223372036854775807"},
        WrongProperties{
            "Decimals",
            [](proto::Properties& properties)
            { properties.add_headers()->mutable_value()->mutable_decimal()->set_decimals(256); },
            "more than 255 decimals"}),
    [](const auto& instance) { return instance.param.name; });

TEST(MessageConversion, WhatIsNoTextDoesNotKeepAnApplicationFromReadingTheRest)
{
    ConfigurationStatus status;
    status.state = ConfigurationState::failed;
    status.error = "cannot bind \xFF";
    status.topics = {"\xC3\x28", "gr\xC3\xBC\xC3\x9F.*"};
    status.queues = {"\x80"};
    proto::Configuration sent;
    ToProto(status, sent);
    proto::Configuration received;
    ASSERT_TRUE(received.ParseFromString(sent.SerializeAsString()));
    EXPECT_EQ(received.error(), "cannot bind \\xff");
    EXPECT_THAT(received.topics(), testing::ElementsAre("\\xc3(", "gr\xC3\xBC\xC3\x9F.*"));
    EXPECT_THAT(received.queues(), testing::ElementsAre("\\x80"));
}

TEST(MessageConversion, APublishRequestIsCheckedAndItsBodyMoved)
{
    proto::PublishRequest request;
    request.set_exchange("e");
    request.set_routing_key(std::string("\0k", 2));
    request.set_body(std::string(1000, 'b'));
    OutgoingMessage message;
    EXPECT_EQ(FromProto(request, message), "");
    EXPECT_EQ(message.exchange, "e");
    EXPECT_EQ(message.routingKey, std::string("\0k", 2));
    EXPECT_EQ(message.body.size(), 1000U);
    EXPECT_TRUE(request.body().empty());
    EXPECT_FALSE(message.mandatory);
    request.set_routing_key(std::string(256, 'x'));
    EXPECT_EQ(FromProto(request, message), "routing_key has 256 bytes, AMQP allows 255");
}

} // namespace
} // namespace VtxQel

#include "broker/AmqpTable.h"

#include "broker/AmqpFrames.h"
#include "broker/HeaderCheck.h"
#include "common/QelException.h"

#include <gtest/gtest.h>

#include <vector>

namespace VtxQel
{

namespace
{

/** Encodes the properties as they go over the wire. */
std::string Encode(const RmqProperties& properties)
{
    AmqpPool pool;
    amqp_basic_properties_t in = ToAmqp(properties, pool);
    std::vector<char> bytes(131072);
    const int size = amqp_encode_properties(AMQP_BASIC_CLASS, &in, {bytes.size(), bytes.data()});
    EXPECT_GT(size, 0);
    return {bytes.data(), static_cast<std::size_t>(size)};
}

RmqProperties Decode(const std::string& encoded)
{
    AmqpPool pool;
    void* decoded = nullptr;
    EXPECT_EQ(amqp_decode_properties(AMQP_BASIC_CLASS, pool.Get(), ToAmqp(encoded), &decoded), 0);
    RmqProperties properties;
    FromAmqp(*static_cast<const amqp_basic_properties_t*>(decoded), properties);
    return properties;
}

RmqTable EveryKind()
{
    const std::string bytes("a\0\xFF", 3);
    RmqTable inner{{"x", RmqValue::String("y")}, {"x", {'V', std::monostate{}}}};
    return {
        {"t", RmqValue::Boolean(true)},
        {"b", {'b', std::int64_t{-128}}},
        {"B", {'B', std::uint64_t{255}}},
        {"s", {'s', std::int64_t{-32768}}},
        {"u", {'u', std::uint64_t{65535}}},
        {"I", {'I', std::int64_t{-2147483648LL}}},
        {"i", {'i', std::uint64_t{4294967295U}}},
        {"l", RmqValue::Integer(INT64_MIN)},
        {"L", {'L', UINT64_MAX}},
        {"f", {'f', 0.5}},
        {"d", {'d', 0.1}},
        {"D", {'D', RmqDecimal{2, 314}}},
        {"S", RmqValue::String(bytes)},
        {"x", {'x', bytes}},
        {"T", RmqValue::Timestamp(1700000000)},
        {"V", {'V', std::monostate{}}},
        {"F", {'F', inner}},
        {"A", {'A', RmqArray{RmqValue::Integer(1), {'F', inner}, {'A', RmqArray{}}}}},
        {"", RmqValue::String("")}};
}

/** Tables in one another, the outermost counted. */
RmqTable Nested(std::size_t depth, char kind)
{
    RmqTable table{{"leaf", RmqValue::Boolean(false)}};
    for (std::size_t i = 1; i < depth; ++i)
    {
        table = kind == 'F' ? RmqTable{{"t", {'F', std::move(table)}}}
                            : RmqTable{{"a", {'A', RmqArray{{'F', std::move(table)}}}}};
    }
    return table;
}

} // namespace

TEST(AmqpTable, EveryKindOfValueComesBackAsItWent)
{
    RmqProperties properties;
    properties.headers = EveryKind();
    const std::string encoded = Encode(properties);
    EXPECT_EQ(RefuseHeaders(encoded), "");
    EXPECT_EQ(Decode(encoded).headers, EveryKind());
}

TEST(AmqpTable, EveryPropertyComesBackAsItWent)
{
    RmqProperties in;
    in.type = "type";
    in.replyTo = "reply";
    in.correlationId = "correlation";
    in.appId = "app";
    in.messageId = "message";
    in.userId = "user";
    in.contentType = "text/plain";
    in.contentEncoding = "gzip";
    in.expiration = "60000";
    in.deliveryMode = 2;
    in.priority = 0;
    in.timestamp = 1;
    const RmqProperties out = Decode(Encode(in));
    EXPECT_EQ(out.type, in.type);
    EXPECT_EQ(out.replyTo, in.replyTo);
    EXPECT_EQ(out.correlationId, in.correlationId);
    EXPECT_EQ(out.appId, in.appId);
    EXPECT_EQ(out.messageId, in.messageId);
    EXPECT_EQ(out.userId, in.userId);
    EXPECT_EQ(out.contentType, in.contentType);
    EXPECT_EQ(out.contentEncoding, in.contentEncoding);
    EXPECT_EQ(out.expiration, in.expiration);
    EXPECT_EQ(out.deliveryMode, in.deliveryMode);
    EXPECT_EQ(out.priority, in.priority);
    EXPECT_EQ(out.timestamp, in.timestamp);
}

TEST(AmqpTable, AbsentPropertiesStayAbsent)
{
    const RmqProperties out = Decode(Encode({}));
    EXPECT_TRUE(out.type.empty());
    EXPECT_TRUE(out.userId.empty());
    EXPECT_FALSE(out.deliveryMode || out.priority || out.timestamp);
    EXPECT_TRUE(out.headers.empty());
}

TEST(AmqpTable, AValueThatDoesNotFitItsKindIsRefused)
{
    AmqpPool pool;
    EXPECT_THROW(ToAmqp(RmqTable{{"k", {'S', true}}}, pool), RmqMessageException);
    EXPECT_THROW(ToAmqp(RmqTable{{"k", {'?', true}}}, pool), RmqMessageException);
    EXPECT_THROW(ToAmqp(RmqTable{{std::string(256, 'k'), RmqValue::Boolean(true)}}, pool), RmqMessageException);
}

TEST(AmqpTable, APropertyOver255BytesIsRefused)
{
    AmqpPool pool;
    RmqProperties properties;
    properties.correlationId = std::string(255, 'c');
    EXPECT_EQ(Decode(Encode(properties)).correlationId.size(), 255U);
    properties.correlationId += 'c';
    EXPECT_THROW(ToAmqp(properties, pool), RmqMessageException);
}

TEST(AmqpTable, DeepNestingIsRefusedBeforeEncoding)
{
    AmqpPool pool;
    EXPECT_NO_THROW(ToAmqp(Nested(MAX_HEADER_DEPTH, 'F'), pool));
    EXPECT_THROW(ToAmqp(Nested(MAX_HEADER_DEPTH + 1, 'F'), pool), RmqMessageException);
    EXPECT_THROW(ToAmqp(Nested(MAX_HEADER_DEPTH, 'A'), pool), RmqMessageException);
}

TEST(AmqpTable, WhatWeEncodeOurselvesIsAcceptedFromOthers)
{
    RmqProperties properties;
    properties.contentType = "a/b";
    properties.contentEncoding = "c";
    properties.headers = Nested(MAX_HEADER_DEPTH, 'F');
    EXPECT_EQ(RefuseHeaders(Encode(properties)), "");
}

} // namespace VtxQel

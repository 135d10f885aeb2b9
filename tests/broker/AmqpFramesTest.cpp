#include "broker/AmqpFrames.h"

#include "common/QelException.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace VtxQel
{

namespace
{

using testing::HasSubstr;
using testing::ThrowsMessage;

constexpr std::size_t MOST = 1000000;

std::string Number(std::uint64_t number, unsigned octets)
{
    std::string bytes;
    for (unsigned i = octets; i-- > 0;)
    {
        bytes.push_back(static_cast<char>(number >> (8 * i)));
    }
    return bytes;
}

/** A content header's payload. */
std::string Header(std::uint64_t bodySize, const std::string& properties = Number(0, 2))
{
    return Number(AMQP_BASIC_CLASS, 2) + Number(0, 2) + Number(bodySize, 8) + properties;
}

std::string Method(amqp_method_number_t id, const std::string& arguments)
{
    return Number(id, 4) + arguments;
}

/** connection.start with these server properties. */
std::string Start(const std::string& table)
{
    return Method(
        AMQP_CONNECTION_START_METHOD,
        Number(9, 2) + Number(table.size(), 4) + table + Number(5, 4) + "PLAIN" + Number(5, 4) + "en_US");
}

} // namespace

/** A content in the making. */
class AmqpFramesContent : public testing::Test
{
  protected:
    void AddHeader(const std::string& payload, bool isCut = false)
    {
        VtxQel::AddHeader(m_content, RawFrame{AMQP_FRAME_HEADER, 1, payload, isCut}, m_pool, MOST);
    }

    AmqpPool m_pool;
    AmqpContent m_content;
};

TEST_F(AmqpFramesContent, IsCompleteWithItsLastByte)
{
    AddHeader(Header(5));
    AddBody(m_content, "hel");
    EXPECT_FALSE(IsComplete(m_content));
    AddBody(m_content, "lo");
    EXPECT_TRUE(IsComplete(m_content));
    EXPECT_EQ(m_content.body, "hello");
    EXPECT_EQ(m_content.refused, "");
}

TEST_F(AmqpFramesContent, ABodyOverTheLimitIsCountedAndNotKept)
{
    AddHeader(Header(MOST + 1));
    EXPECT_THAT(m_content.refused, HasSubstr("over the limit"));
    AddBody(m_content, std::string(MOST, 'x'));
    AddBody(m_content, "x");
    EXPECT_TRUE(IsComplete(m_content));
    EXPECT_LT(m_content.body.capacity(), 100U);
}

TEST_F(AmqpFramesContent, ASizeThatNoBrokerCarriesIsALie)
{
    EXPECT_THAT(
        [this] { AddHeader(Header(std::uint64_t{1} << 40U)); },
        ThrowsMessage<RmqConnectionException>(HasSubstr("1099511627776 bytes, which is a lie")));
}

TEST_F(AmqpFramesContent, MemoryGrowsWithWhatCameAndNotWithWhatWasSaid)
{
    AddHeader(Header(MOST));
    AddBody(m_content, std::string(1000, 'x'));
    EXPECT_LT(m_content.body.capacity(), 3000U);
    AddBody(m_content, std::string(MOST / 4, 'x'));
    EXPECT_EQ(m_content.body.capacity(), MOST) << "one growth to the end";
}

TEST_F(AmqpFramesContent, HeadersThatWereCutAreRefusedAndTheBodyIsKept)
{
    AddHeader(Header(3, ""), true);
    EXPECT_EQ(m_content.refused, "headers larger than a frame");
    AddBody(m_content, "abc");
    EXPECT_TRUE(IsComplete(m_content));
    EXPECT_EQ(m_content.body, "abc");
}

TEST_F(AmqpFramesContent, PropertiesThatEndEarlyAreRefused)
{
    // The flag of the message's type and no type.
    AddHeader(Header(0, Number(1U << 5U, 2)));
    EXPECT_EQ(m_content.refused, "malformed message properties");
    EXPECT_TRUE(IsComplete(m_content));
}

TEST_F(AmqpFramesContent, FramesOutOfPlaceAreRefused)
{
    EXPECT_THROW(AddBody(m_content, "x"), RmqConnectionException);
    EXPECT_THROW(AddHeader("short"), RmqConnectionException);
}

TEST_F(AmqpFramesContent, ASecondHeaderAndMoreThanWasDeclaredAreRefused)
{
    AddHeader(Header(1));
    EXPECT_THROW(AddHeader(Header(1)), RmqConnectionException);
    EXPECT_THROW(AddBody(m_content, "xx"), RmqConnectionException);
}

TEST(AmqpFramesMethod, WhatABrokerSaysIsDecoded)
{
    AmqpPool pool;
    const std::string payload = Method(AMQP_BASIC_ACK_METHOD, Number(7, 8) + Number(1, 1));
    const amqp_method_t method = DecodeMethod(payload, pool);
    ASSERT_EQ(method.id, static_cast<amqp_method_number_t>(AMQP_BASIC_ACK_METHOD));
    EXPECT_EQ(static_cast<const amqp_basic_ack_t*>(method.decoded)->delivery_tag, 7U);
}

TEST(AmqpFramesMethod, WhatOnlyClientsSayAndWhatNobodyKnowsIsRefused)
{
    AmqpPool pool;
    EXPECT_THAT(
        [&pool] { DecodeMethod(Method(AMQP_QUEUE_DECLARE_METHOD, std::string(20, '\0')), pool); },
        ThrowsMessage<RmqConnectionException>("received method 50.10, which no broker sends"));
    EXPECT_THAT(
        [&pool] { DecodeMethod(Method(0xFFFFFFFF, ""), pool); },
        ThrowsMessage<RmqConnectionException>("received method 65535.65535, which no broker sends"));
}

TEST(AmqpFramesMethod, WhatIsTooShortIsRefused)
{
    AmqpPool pool;
    EXPECT_THROW(DecodeMethod("", pool), RmqConnectionException);
    EXPECT_THROW(DecodeMethod("abc", pool), RmqConnectionException);
    EXPECT_THAT(
        [&pool] { DecodeMethod(Method(AMQP_BASIC_DELIVER_METHOD, "\x05tag"), pool); },
        ThrowsMessage<RmqConnectionException>(HasSubstr("received method 60.60, which cannot be decoded")));
    EXPECT_THROW(DecodeMethod(Method(AMQP_CONNECTION_START_METHOD, ""), pool), RmqConnectionException);
}

TEST(AmqpFramesMethod, ABrokersPropertiesAreCheckedBeforeTheyAreDecoded)
{
    AmqpPool pool;
    EXPECT_NO_THROW(DecodeMethod(Start(std::string("\x01k") + "S" + Number(1, 4) + "v"), pool));
    std::string nested;
    for (int i = 0; i < 26000; ++i)
    {
        nested.insert(0, "A" + Number(nested.size(), 4));
    }
    EXPECT_THAT(
        [&] { DecodeMethod(Start("\x01k" + nested), pool); },
        ThrowsMessage<RmqConnectionException>(HasSubstr("cannot be decoded: headers nested too deeply")));
}

} // namespace VtxQel

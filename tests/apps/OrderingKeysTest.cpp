#include "apps/OrderingKeys.h"

#include "apps/AppsFakes.h"

#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

AnswerLog answers;

OrderingKey KeyOf(const std::string& source, const std::string& routingKey, RmqTable headers = {})
{
    FakeMessage message{.body = "", .routingKey = routingKey};
    message.properties.headers = std::move(headers);
    return OrderingKeyOf(source, FakeDelivery(answers, message));
}

TEST(OrderingKeys, NothingTheRoutingKeyAndHeadersAreSources)
{
    EXPECT_TRUE(IsOrderingKeySource(""));
    EXPECT_TRUE(IsOrderingKeySource("routing_key"));
    EXPECT_TRUE(IsOrderingKeySource("header:x"));
    EXPECT_TRUE(IsOrderingKeySource("header:" + std::string(255, 'x')));
    EXPECT_FALSE(IsOrderingKeySource("header:" + std::string(256, 'x')));
    EXPECT_FALSE(IsOrderingKeySource("header:"));
    EXPECT_FALSE(IsOrderingKeySource("header"));
    EXPECT_FALSE(IsOrderingKeySource("routing_keys"));
    EXPECT_FALSE(IsOrderingKeySource("message_id"));
}

TEST(OrderingKeys, TheRoutingKeyIsAKeyEvenWhenItIsEmpty)
{
    EXPECT_NE(KeyOf("routing_key", ""), 0U);
    EXPECT_EQ(KeyOf("routing_key", "a.b"), KeyOf("routing_key", "a.b"));
    EXPECT_NE(KeyOf("routing_key", "a.b"), KeyOf("routing_key", "a.c"));
    EXPECT_EQ(KeyOf("", "a.b"), 0U);
}

TEST(OrderingKeys, AHeadersTextOrNumberIsAKey)
{
    const RmqTable text{{"other", RmqValue::String("x")}, {"customer", RmqValue::String("17")}};
    const RmqTable number{{"customer", RmqValue::Integer(17)}};
    const RmqTable unsignedNumber{{"customer", RmqValue{'L', std::uint64_t{17}}}};
    EXPECT_NE(KeyOf("header:customer", "a", text), 0U);
    EXPECT_EQ(KeyOf("header:customer", "a", text), KeyOf("header:customer", "b", number));
    EXPECT_EQ(KeyOf("header:customer", "a", text), KeyOf("header:customer", "b", unsignedNumber));
    EXPECT_NE(KeyOf("header:customer", "a", text), KeyOf("header:other", "a", text));
}

TEST(OrderingKeys, WithoutTheHeaderOrWithAValueOfAnotherKindThereIsNone)
{
    EXPECT_EQ(KeyOf("header:customer", "a"), 0U);
    EXPECT_EQ(KeyOf("header:customer", "a", {{"Customer", RmqValue::Integer(1)}}), 0U);
    EXPECT_EQ(KeyOf("header:customer", "a", {{"customer", RmqValue::Boolean(true)}}), 0U);
    EXPECT_EQ(KeyOf("header:customer", "a", {{"customer", RmqValue{'A', RmqArray{}}}}), 0U);
}

} // namespace
} // namespace VtxQel

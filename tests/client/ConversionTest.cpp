#include "Conversion.h"

#include "common/Utf8.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace qel
{

namespace v1 = apps::v1;

/** A publication's headers as they would come in a delivery. */
Headers ThereAndBack(const Headers& headers)
{
    Publication publication;
    publication.properties.headers = headers;
    v1::Delivery delivery;
    *delivery.mutable_properties() = ToProto(publication).properties();
    return FromProto(delivery).properties.headers;
}

TEST(Conversion, HeadersOfEveryKindSurvive)
{
    const std::chrono::sys_seconds moment{std::chrono::seconds(1700000000)};
    const Headers back = ThereAndBack(
        {{"yes", {true}},
         {"integer", {std::int64_t{-7}}},
         {"number", {0.5}},
         {"text", {std::string("t\xff")}},
         {"array", {HeaderArray{{std::int64_t{1}}, {std::string("two")}}}},
         {"empty", {HeaderArray{}}},
         {"table", {Headers{{"inner", {false}}}}},
         {"moment", {moment}},
         {"decimal", {Decimal{2, 314}}},
         {"nothing", {}}});

    ASSERT_EQ(10U, back.size());
    EXPECT_TRUE(std::get<bool>(Find(back, "yes")->value));
    EXPECT_EQ(-7, std::get<std::int64_t>(Find(back, "integer")->value));
    EXPECT_DOUBLE_EQ(0.5, std::get<double>(Find(back, "number")->value));
    EXPECT_EQ("t\xff", std::get<std::string>(Find(back, "text")->value));
    EXPECT_EQ("two", std::get<std::string>(std::get<HeaderArray>(Find(back, "array")->value).at(1).value));
    EXPECT_TRUE(std::get<HeaderArray>(Find(back, "empty")->value).empty());
    EXPECT_FALSE(std::get<bool>(Find(std::get<Headers>(Find(back, "table")->value), "inner")->value));
    EXPECT_EQ(moment, std::get<std::chrono::sys_seconds>(Find(back, "moment")->value));
    EXPECT_EQ(314U, std::get<Decimal>(Find(back, "decimal")->value).value);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(Find(back, "nothing")->value));
    EXPECT_EQ(nullptr, Find(back, "absent"));
}

TEST(Conversion, ADeliveryBecomesAMessage)
{
    v1::Delivery delivery;
    delivery.set_exchange("qel");
    delivery.set_routing_key("orders.created");
    delivery.set_queue("client");
    delivery.set_body(std::string("a\0b", 3));
    delivery.set_redelivered(true);
    delivery.set_tries(3);
    delivery.set_priority(true);
    delivery.set_idempotency_key("web/17");
    delivery.mutable_properties()->set_message_id("17");
    delivery.mutable_properties()->set_priority(0);
    const Message message = FromProto(delivery);
    EXPECT_EQ("qel", message.exchange);
    EXPECT_EQ("orders.created", message.routingKey);
    EXPECT_EQ("client", message.queue);
    EXPECT_EQ(std::string("a\0b", 3), message.body);
    EXPECT_TRUE(message.redelivered);
    EXPECT_EQ(3U, message.tries);
    EXPECT_TRUE(message.priority);
    EXPECT_EQ("web/17", message.idempotencyKey);
    EXPECT_EQ("17", message.properties.messageId);
    EXPECT_EQ(0U, message.properties.priority);
    EXPECT_FALSE(message.properties.deliveryMode);
}

TEST(Conversion, AReasonIsCutBetweenCharactersAndIsUtf8)
{
    EXPECT_EQ("why", ReasonText("why"));
    const std::string cut = ReasonText(std::string(1023, 'x') + "\xe2\x82\xac");
    EXPECT_EQ(std::string(1023, 'x'), cut);
    EXPECT_EQ("bad \\xff", ReasonText("bad \xff"));
    EXPECT_TRUE(VtxQel::IsUtf8(ReasonText(std::string(5000, '\xff'))));
}

TEST(Conversion, AReplyGoesWhereTheRequestSays)
{
    Message request;
    request.properties.replyTo = "answers";
    request.properties.correlationId = "c1";
    const Publication reply = ReplyTo(request, "yes");
    EXPECT_EQ("", reply.exchange);
    EXPECT_EQ("answers", reply.routingKey);
    EXPECT_EQ("yes", reply.body);
    EXPECT_EQ("c1", reply.properties.correlationId);
    EXPECT_FALSE(reply.noRouteIsError);
    EXPECT_THROW(ReplyTo(Message(), "yes"), std::invalid_argument);
}

} // namespace qel

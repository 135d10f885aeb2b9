#include "qelctl/DeliveryPrinter.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>

namespace VtxQel
{

namespace
{

namespace v1 = qel::apps::v1;

v1::Delivery SomeDelivery()
{
    v1::Delivery delivery;
    delivery.set_delivery_id(7);
    delivery.set_exchange("qel");
    delivery.set_routing_key("orders.new");
    delivery.set_queue("qel.client.h");
    delivery.set_body("hello");
    delivery.mutable_properties()->set_type("T");
    delivery.mutable_properties()->set_app_id("web");
    return delivery;
}

nlohmann::json PrintedJson(const v1::Delivery& delivery)
{
    std::ostringstream out;
    DeliveryPrinter(out, true).PrintDelivery(delivery);
    EXPECT_EQ(out.str().find('\n'), out.str().size() - 1);
    return nlohmann::json::parse(out.str());
}

std::string PrintedText(const v1::Delivery& delivery)
{
    std::ostringstream out;
    DeliveryPrinter(out, false).PrintDelivery(delivery);
    return out.str();
}

} // namespace

TEST(DeliveryPrinter, ADeliveryIsOneJsonObjectALine)
{
    const nlohmann::json expected = nlohmann::json::parse(R"({
        "event": "delivery", "deliveryId": 7, "exchange": "qel", "routingKey": "orders.new", "queue": "qel.client.h",
        "type": "T", "appId": "web", "body": "hello", "redelivered": false, "tries": 0, "priority": false,
        "headers": {}})");

    EXPECT_EQ(PrintedJson(SomeDelivery()), expected);
}

TEST(DeliveryPrinter, ABodyThatIsNotTextIsInBase64)
{
    v1::Delivery delivery = SomeDelivery();
    delivery.set_body(std::string("\xff\x00\x01", 3));

    const nlohmann::json line = PrintedJson(delivery);

    EXPECT_EQ(line.at("bodyBase64"), "/wAB");
    EXPECT_EQ(line.count("body"), 0U);
}

TEST(DeliveryPrinter, ALongBodyInBase64IsComplete)
{
    v1::Delivery delivery = SomeDelivery();
    delivery.set_body(std::string((3U << 20) + 1, '\xff'));

    const std::string text = PrintedJson(delivery).at("bodyBase64");

    EXPECT_EQ(text.size(), ((3U << 20) / 3 + 1) * 4);
    EXPECT_EQ(text.substr(text.size() - 8), "/////w==");
}

TEST(DeliveryPrinter, HeadersOfEveryKindAreShown)
{
    v1::Delivery delivery = SomeDelivery();
    const auto add = [&delivery](const std::string& name)
    {
        v1::Header* header = delivery.mutable_properties()->add_headers();
        header->set_name(name);
        return header->mutable_value();
    };
    add("boolean")->set_boolean(true);
    add("integer")->set_integer(-5);
    add("unsigned")->set_unsigned_integer(18446744073709551615ULL);
    add("number")->set_number(0.5);
    add("text")->set_text("t");
    add("bytes")->set_text("\xff");
    add("null")->set_null(true);
    add("time")->mutable_timestamp()->set_seconds(9);
    v1::HeaderValue* decimal = add("decimal");
    decimal->mutable_decimal()->set_decimals(2);
    decimal->mutable_decimal()->set_value(314);
    add("array")->mutable_array()->add_values()->set_integer(1);
    v1::Header* inner = add("table")->mutable_table()->add_headers();
    inner->set_name("x");
    inner->mutable_value()->set_text("y");

    const nlohmann::json expected = nlohmann::json::parse(R"({
        "boolean": true, "integer": -5, "unsigned": 18446744073709551615, "number": 0.5, "text": "t",
        "bytes": {"base64": "/w=="}, "null": null, "time": {"timestamp": 9},
        "decimal": {"decimals": 2, "value": 314}, "array": [1], "table": {"x": "y"}})");
    EXPECT_EQ(PrintedJson(delivery).at("headers"), expected);
}

TEST(DeliveryPrinter, APropertyThatIsNotTextDoesNotBreakTheLine)
{
    v1::Delivery delivery = SomeDelivery();
    delivery.mutable_properties()->set_type("a\xffz");
    delivery.set_routing_key("\xc3");

    EXPECT_EQ(PrintedJson(delivery).at("type"), "a\xef\xbf\xbdz");
}

TEST(DeliveryPrinter, AReadableLineHoldsNoControlCharacters)
{
    v1::Delivery delivery = SomeDelivery();
    delivery.set_body("a\x1b[2J\nb\x7f");
    delivery.set_priority(true);
    delivery.set_redelivered(true);
    delivery.set_tries(2);

    EXPECT_EQ(
        PrintedText(delivery), "#7 qel orders.new type=T app-id=web priority redelivered tries=2: "
                               "\"a\\u001b[2J\\nb\\u007f\"\n");
}

TEST(DeliveryPrinter, AReadableLineCutsALongBody)
{
    v1::Delivery delivery = SomeDelivery();
    delivery.set_body(std::string(201, 'x'));

    EXPECT_EQ(
        PrintedText(delivery),
        "#7 qel orders.new type=T app-id=web: \"" + std::string(200, 'x') + "\"... (201 bytes)\n");
}

TEST(DeliveryPrinter, WelcomeAndConfigurationTellTheState)
{
    v1::Welcome welcome;
    welcome.set_application("web");
    welcome.set_agent_version("1");
    welcome.set_window(10);
    welcome.mutable_configuration()->set_state(v1::Configuration::FAILED);
    welcome.mutable_configuration()->set_error("bind");
    std::ostringstream json;
    DeliveryPrinter(json, true).PrintWelcome(welcome);
    EXPECT_EQ(nlohmann::json::parse(json.str()), nlohmann::json::parse(R"({
        "event": "welcome", "application": "web", "agentVersion": "1", "window": 10,
        "configuration": {"state": "FAILED", "error": "bind", "topics": [], "queues": []}})"));

    v1::Configuration configuration;
    configuration.set_state(v1::Configuration::APPLIED);
    configuration.add_topics("a");
    configuration.add_topics("b");
    std::ostringstream text;
    DeliveryPrinter(text, false).PrintConfiguration(configuration);
    EXPECT_EQ(text.str(), "configuration APPLIED, topics: a, b, queues: none\n");
}

} // namespace VtxQel

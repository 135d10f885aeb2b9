#include "qelctl/DeliveryPrinter.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>

namespace VtxQel
{

namespace
{

qel::Message SomeMessage()
{
    qel::Message message;
    message.exchange = "qel";
    message.routingKey = "orders.new";
    message.queue = "qel.client.h";
    message.body = "hello";
    message.properties.type = "T";
    message.properties.appId = "web";
    return message;
}

nlohmann::json PrintedJson(const qel::Message& message)
{
    std::ostringstream out;
    DeliveryPrinter(out, true).PrintDelivery(7, message);
    EXPECT_EQ(out.str().find('\n'), out.str().size() - 1);
    return nlohmann::json::parse(out.str());
}

std::string PrintedText(const qel::Message& message)
{
    std::ostringstream out;
    DeliveryPrinter(out, false).PrintDelivery(7, message);
    return out.str();
}

} // namespace

TEST(DeliveryPrinter, ADeliveryIsOneJsonObjectALine)
{
    const nlohmann::json expected = nlohmann::json::parse(R"({
        "event": "delivery", "deliveryId": 7, "exchange": "qel", "routingKey": "orders.new", "queue": "qel.client.h",
        "type": "T", "appId": "web", "body": "hello", "redelivered": false, "tries": 0, "priority": false,
        "headers": {}})");

    EXPECT_EQ(PrintedJson(SomeMessage()), expected);
}

TEST(DeliveryPrinter, ABodyThatIsNotTextIsInBase64)
{
    qel::Message message = SomeMessage();
    message.body = std::string("\xff\x00\x01", 3);

    const nlohmann::json line = PrintedJson(message);

    EXPECT_EQ(line.at("bodyBase64"), "/wAB");
    EXPECT_EQ(line.count("body"), 0U);
}

TEST(DeliveryPrinter, ALongBodyInBase64IsComplete)
{
    qel::Message message = SomeMessage();
    message.body = std::string((3U << 20) + 1, '\xff');

    const std::string text = PrintedJson(message).at("bodyBase64");

    EXPECT_EQ(text.size(), ((3U << 20) / 3 + 1) * 4);
    EXPECT_EQ(text.substr(text.size() - 8), "/////w==");
}

TEST(DeliveryPrinter, HeadersOfEveryKindAreShown)
{
    qel::Message message = SomeMessage();
    message.properties.headers = {
        {"boolean", {true}},
        {"integer", {std::int64_t{-5}}},
        {"number", {0.5}},
        {"text", {"t"}},
        {"bytes", {"\xff"}},
        {"null", {}},
        {"time", {std::chrono::sys_seconds(std::chrono::seconds(9))}},
        {"decimal", {qel::Decimal{2, 314}}},
        {"array", {qel::HeaderArray{{std::int64_t{1}}}}},
        {"table", {qel::Headers{{"x", {"y"}}}}}};

    const nlohmann::json expected = nlohmann::json::parse(R"({
        "boolean": true, "integer": -5, "number": 0.5, "text": "t",
        "bytes": {"base64": "/w=="}, "null": null, "time": {"timestamp": 9},
        "decimal": {"decimals": 2, "value": 314}, "array": [1], "table": {"x": "y"}})");
    EXPECT_EQ(PrintedJson(message).at("headers"), expected);
}

TEST(DeliveryPrinter, APropertyThatIsNotTextDoesNotBreakTheLine)
{
    qel::Message message = SomeMessage();
    message.properties.type = "a\xffz";
    message.routingKey = "\xc3";

    EXPECT_EQ(PrintedJson(message).at("type"), "a\xef\xbf\xbdz");
}

TEST(DeliveryPrinter, AReadableLineHoldsNoControlCharacters)
{
    qel::Message message = SomeMessage();
    message.body = "a\x1b[2J\nb\x7f";
    message.priority = true;
    message.redelivered = true;
    message.tries = 2;

    EXPECT_EQ(
        PrintedText(message), "#7 qel orders.new type=T app-id=web priority redelivered tries=2: "
                              "\"a\\u001b[2J\\nb\\u007f\"\n");
}

TEST(DeliveryPrinter, AReadableLineCutsALongBody)
{
    qel::Message message = SomeMessage();
    message.body = std::string(201, 'x');

    EXPECT_EQ(
        PrintedText(message),
        "#7 qel orders.new type=T app-id=web: \"" + std::string(200, 'x') + "\"... (201 bytes)\n");
}

TEST(DeliveryPrinter, TheWelcomeTellsTheState)
{
    qel::Welcome welcome;
    welcome.application = "web";
    welcome.agentVersion = "1";
    welcome.window = 10;
    welcome.broker = qel::BrokerState::connected;
    welcome.configuration.state = qel::Configuration::State::failed;
    welcome.configuration.error = "bind";
    std::ostringstream json;
    DeliveryPrinter(json, true).PrintWelcome(welcome);
    EXPECT_EQ(nlohmann::json::parse(json.str()), nlohmann::json::parse(R"({
        "event": "welcome", "application": "web", "agentVersion": "1", "window": 10, "broker": "CONNECTED",
        "configuration": {"state": "FAILED", "error": "bind", "topics": [], "queues": []}})"));
}

TEST(DeliveryPrinter, OnlyWhatChangesIsPrinted)
{
    std::ostringstream out;
    DeliveryPrinter printer(out, false);
    qel::Welcome welcome;
    welcome.configuration.state = qel::Configuration::State::applied;
    welcome.broker = qel::BrokerState::connected;
    printer.PrintWelcome(welcome);
    out.str("");
    printer.PrintConfiguration(welcome.configuration);
    printer.PrintBroker(welcome.broker);
    EXPECT_EQ(out.str(), "");

    printer.PrintBroker(qel::BrokerState::blocked);
    printer.PrintBroker(qel::BrokerState::disconnected);
    printer.PrintBroker(qel::BrokerState::connected);
    welcome.configuration.topics = {"a", "b"};
    printer.PrintConfiguration(welcome.configuration);
    EXPECT_EQ(
        out.str(), "broker BLOCKED\nbroker DISCONNECTED\nbroker CONNECTED\n"
                   "configuration APPLIED, topics: a, b, queues: none\n");
}

} // namespace VtxQel

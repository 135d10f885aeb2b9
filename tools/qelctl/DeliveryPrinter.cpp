#include "DeliveryPrinter.h"

#include "TableJson.h"
#include "TextForms.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;

constexpr std::size_t bodyBytesForPeople = 200;

Json ToJson(const qel::Headers& headers);

Json ToJson(const qel::HeaderValue& value)
{
    const auto convert = [](const auto& held) -> Json
    {
        using Type = std::decay_t<decltype(held)>;
        if constexpr (std::is_same_v<Type, std::monostate>)
        {
            return nullptr;
        }
        else if constexpr (std::is_same_v<Type, std::string>)
        {
            return TextOrBase64(held);
        }
        else if constexpr (std::is_same_v<Type, qel::HeaderArray>)
        {
            Json list = Json::array();
            for (const qel::HeaderValue& element : held)
            {
                list.push_back(ToJson(element));
            }
            return list;
        }
        else if constexpr (std::is_same_v<Type, qel::Headers>)
        {
            return ToJson(held);
        }
        else if constexpr (std::is_same_v<Type, std::chrono::sys_seconds>)
        {
            return {{"timestamp", held.time_since_epoch().count()}};
        }
        else if constexpr (std::is_same_v<Type, qel::Decimal>)
        {
            return {{"decimals", held.decimals}, {"value", held.value}};
        }
        else
        {
            return held;
        }
    };
    return std::visit(convert, value.value);
}

Json ToJson(const qel::Headers& headers)
{
    Json object = Json::object();
    for (const auto& [name, value] : headers)
    {
        object[name] = ToJson(value);
    }
    return object;
}

std::string NameOf(qel::Configuration::State state)
{
    switch (state)
    {
    case qel::Configuration::State::missing:
        return "MISSING";
    case qel::Configuration::State::applying:
        return "APPLYING";
    case qel::Configuration::State::applied:
        return "APPLIED";
    case qel::Configuration::State::failed:
        break;
    }
    return "FAILED";
}

std::string NameOf(qel::BrokerState state)
{
    switch (state)
    {
    case qel::BrokerState::connected:
        return "CONNECTED";
    case qel::BrokerState::blocked:
        return "BLOCKED";
    case qel::BrokerState::disconnected:
        break;
    }
    return "DISCONNECTED";
}

Json ToJson(const qel::Configuration& configuration)
{
    Json object = {{"state", NameOf(configuration.state)}};
    if (!configuration.error.empty())
    {
        object["error"] = configuration.error;
    }
    object["topics"] = configuration.topics;
    object["queues"] = configuration.queues;
    if (configuration.incomplete)
    {
        object["incomplete"] = true;
    }
    return object;
}

Json ToJson(std::uint64_t number, const qel::Message& message)
{
    const qel::Properties& properties = message.properties;
    Json object = {{"event", "delivery"},          {"deliveryId", number},
                   {"exchange", message.exchange}, {"routingKey", message.routingKey},
                   {"queue", message.queue},       {"type", properties.type},
                   {"appId", properties.appId}};
    if (IsText(message.body))
    {
        object["body"] = message.body;
    }
    else
    {
        object["bodyBase64"] = ToBase64(message.body);
    }
    object["redelivered"] = message.redelivered;
    object["tries"] = message.tries;
    object["priority"] = message.priority;
    const std::pair<const char*, const std::string*> others[] = {
        {"idempotencyKey", &message.idempotencyKey},
        {"messageId", &properties.messageId},
        {"replyTo", &properties.replyTo},
        {"correlationId", &properties.correlationId},
        {"userId", &properties.userId},
        {"contentType", &properties.contentType},
        {"contentEncoding", &properties.contentEncoding},
        {"expiration", &properties.expiration}};
    for (const auto& [name, value] : others)
    {
        if (!value->empty())
        {
            object[name] = *value;
        }
    }
    object["headers"] = ToJson(properties.headers);
    return object;
}

std::string List(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
    {
        text += (text.empty() ? "" : ", ") + ForTerminal(name);
    }
    return text.empty() ? "none" : text;
}

std::string Describe(const qel::Configuration& configuration)
{
    std::string text = "configuration " + NameOf(configuration.state);
    if (!configuration.error.empty())
    {
        text += " (" + ForTerminal(configuration.error) + ")";
    }
    return text + ", topics: " + List(configuration.topics) + ", queues: " + List(configuration.queues) +
           (configuration.incomplete ? ", and more" : "");
}

std::string Describe(std::uint64_t number, const qel::Message& message)
{
    std::string text = "#" + std::to_string(number) + " " +
                       (message.exchange.empty() ? "(default exchange)" : ForTerminal(message.exchange)) + " " +
                       ForTerminal(message.routingKey);
    if (!message.properties.type.empty())
    {
        text += " type=" + ForTerminal(message.properties.type);
    }
    if (!message.properties.appId.empty())
    {
        text += " app-id=" + ForTerminal(message.properties.appId);
    }
    text += message.priority ? " priority" : "";
    text += message.redelivered ? " redelivered" : "";
    text += message.tries > 0 ? " tries=" + std::to_string(message.tries) : "";
    text += ": \"" + ForTerminal(message.body.substr(0, bodyBytesForPeople)) + "\"";
    if (message.body.size() > bodyBytesForPeople)
    {
        text += "... (" + std::to_string(message.body.size()) + " bytes)";
    }
    return text;
}

} // namespace

void DeliveryPrinter::PrintWelcome(const qel::Welcome& welcome)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_configuration = welcome.configuration;
    m_broker = welcome.broker;
    Json line = {{"event", "welcome"},
                 {"application", welcome.application},
                 {"agentVersion", welcome.agentVersion},
                 {"window", welcome.window},
                 {"broker", NameOf(welcome.broker)},
                 {"configuration", ToJson(welcome.configuration)}};
    if (!welcome.orderingKey.empty())
    {
        line["orderingKey"] = welcome.orderingKey;
    }
    Print(
        line, "attached as " + ForTerminal(welcome.application) + " (agent " + ForTerminal(welcome.agentVersion) +
                  ", window " + std::to_string(welcome.window) + "), broker " + NameOf(welcome.broker) + ", " +
                  Describe(welcome.configuration));
}

void DeliveryPrinter::PrintConfiguration(const qel::Configuration& configuration)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_configuration == configuration)
    {
        return;
    }
    m_configuration = configuration;
    Json line = {{"event", "configuration"}};
    line.update(ToJson(configuration));
    Print(line, Describe(configuration));
}

void DeliveryPrinter::PrintBroker(qel::BrokerState state)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_broker == state)
    {
        return;
    }
    m_broker = state;
    Print({{"event", "broker"}, {"state", NameOf(state)}}, "broker " + NameOf(state));
}

void DeliveryPrinter::PrintDelivery(std::uint64_t number, const qel::Message& message)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_json)
    {
        Print(ToJson(number, message), "");
    }
    else
    {
        Print({}, Describe(number, message));
    }
}

void DeliveryPrinter::PrintDetached(const std::string& why)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Print({{"event", "detached"}, {"error", why}}, "detached: " + ForTerminal(why));
}

// One line; bytes that are not UTF-8 outside the body become replacement characters.
void DeliveryPrinter::Print(const Json& line, const std::string& text)
{
    m_out << (m_json ? line.dump(-1, ' ', false, Json::error_handler_t::replace) : text) << std::endl;
}

} // namespace VtxQel

#include "DeliveryPrinter.h"

#include "TextForms.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;
namespace v1 = qel::apps::v1;

constexpr std::size_t bodyBytesForPeople = 200;

Json TextOrBase64(const std::string& bytes)
{
    return IsText(bytes) ? Json(bytes) : Json{{"base64", ToBase64(bytes)}};
}

Json ToJson(const v1::HeaderTable& table);

Json ToJson(const v1::HeaderValue& value)
{
    switch (value.kind_case())
    {
    case v1::HeaderValue::kBoolean:
        return value.boolean();
    case v1::HeaderValue::kInteger:
        return value.integer();
    case v1::HeaderValue::kUnsignedInteger:
        return value.unsigned_integer();
    case v1::HeaderValue::kNumber:
        return value.number();
    case v1::HeaderValue::kText:
        return TextOrBase64(value.text());
    case v1::HeaderValue::kTable:
        return ToJson(value.table());
    case v1::HeaderValue::kArray:
    {
        Json list = Json::array();
        for (const v1::HeaderValue& element : value.array().values())
        {
            list.push_back(ToJson(element));
        }
        return list;
    }
    case v1::HeaderValue::kTimestamp:
        return {{"timestamp", value.timestamp().seconds()}};
    case v1::HeaderValue::kDecimal:
        return {{"decimals", value.decimal().decimals()}, {"value", value.decimal().value()}};
    case v1::HeaderValue::kNull:
    case v1::HeaderValue::KIND_NOT_SET:
        break;
    }
    return nullptr;
}

Json ToJson(const v1::HeaderTable& table)
{
    Json object = Json::object();
    for (const v1::Header& header : table.headers())
    {
        object[header.name()] = ToJson(header.value());
    }
    return object;
}

Json ToJson(const v1::Configuration& configuration)
{
    Json object = {{"state", v1::Configuration::State_Name(configuration.state())}};
    if (!configuration.error().empty())
    {
        object["error"] = configuration.error();
    }
    object["topics"] = configuration.topics();
    object["queues"] = configuration.queues();
    return object;
}

Json ToJson(const v1::Delivery& delivery)
{
    const v1::Properties& properties = delivery.properties();
    Json object = {
        {"event", "delivery"},
        {"deliveryId", delivery.delivery_id()},
        {"exchange", delivery.exchange()},
        {"routingKey", delivery.routing_key()},
        {"queue", delivery.queue()},
        {"type", properties.type()},
        {"appId", properties.app_id()}};
    if (IsText(delivery.body()))
    {
        object["body"] = delivery.body();
    }
    else
    {
        object["bodyBase64"] = ToBase64(delivery.body());
    }
    object["redelivered"] = delivery.redelivered();
    object["tries"] = delivery.tries();
    object["priority"] = delivery.priority();
    const std::pair<const char*, const std::string*> others[] = {
        {"messageId", &properties.message_id()},
        {"replyTo", &properties.reply_to()},
        {"correlationId", &properties.correlation_id()},
        {"userId", &properties.user_id()},
        {"contentType", &properties.content_type()}};
    for (const auto& [name, value] : others)
    {
        if (!value->empty())
        {
            object[name] = *value;
        }
    }
    v1::HeaderTable headers;
    *headers.mutable_headers() = properties.headers();
    object["headers"] = ToJson(headers);
    return object;
}

/** One line; bytes that are not UTF-8 outside the body become replacement characters. */
std::string Line(const Json& object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string List(const google::protobuf::RepeatedPtrField<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
    {
        text += (text.empty() ? "" : ", ") + ForTerminal(name);
    }
    return text.empty() ? "none" : text;
}

std::string Describe(const v1::Configuration& configuration)
{
    std::string text = "configuration " + v1::Configuration::State_Name(configuration.state());
    if (!configuration.error().empty())
    {
        text += " (" + ForTerminal(configuration.error()) + ")";
    }
    return text + ", topics: " + List(configuration.topics()) + ", queues: " + List(configuration.queues());
}

std::string Describe(const v1::Delivery& delivery)
{
    const v1::Properties& properties = delivery.properties();
    std::string text = "#" + std::to_string(delivery.delivery_id()) + " " +
                       (delivery.exchange().empty() ? "(default exchange)" : ForTerminal(delivery.exchange())) + " " +
                       ForTerminal(delivery.routing_key());
    if (!properties.type().empty())
    {
        text += " type=" + ForTerminal(properties.type());
    }
    if (!properties.app_id().empty())
    {
        text += " app-id=" + ForTerminal(properties.app_id());
    }
    text += delivery.priority() ? " priority" : "";
    text += delivery.redelivered() ? " redelivered" : "";
    text += delivery.tries() > 0 ? " tries=" + std::to_string(delivery.tries()) : "";
    const std::string& body = delivery.body();
    text += ": \"" + ForTerminal(body.substr(0, bodyBytesForPeople)) + "\"";
    if (body.size() > bodyBytesForPeople)
    {
        text += "... (" + std::to_string(body.size()) + " bytes)";
    }
    return text;
}

} // namespace

void DeliveryPrinter::PrintWelcome(const v1::Welcome& welcome)
{
    if (m_json)
    {
        const Json line = {
            {"event", "welcome"},
            {"application", welcome.application()},
            {"agentVersion", welcome.agent_version()},
            {"window", welcome.window()},
            {"configuration", ToJson(welcome.configuration())}};
        m_out << Line(line) << std::endl;
        return;
    }
    m_out << "attached as " << ForTerminal(welcome.application()) << " (agent " << ForTerminal(welcome.agent_version())
          << ", window " << welcome.window() << "), " << Describe(welcome.configuration()) << std::endl;
}

void DeliveryPrinter::PrintConfiguration(const v1::Configuration& configuration)
{
    if (m_json)
    {
        Json line = {{"event", "configuration"}};
        line.update(ToJson(configuration));
        m_out << Line(line) << std::endl;
        return;
    }
    m_out << Describe(configuration) << std::endl;
}

void DeliveryPrinter::PrintDelivery(const v1::Delivery& delivery)
{
    m_out << (m_json ? Line(ToJson(delivery)) : Describe(delivery)) << std::endl;
}

void DeliveryPrinter::PrintDetached(const std::string& why)
{
    if (m_json)
    {
        m_out << Line({{"event", "detached"}, {"error", why}}) << std::endl;
        return;
    }
    m_out << "detached: " << ForTerminal(why) << std::endl;
}

} // namespace VtxQel

#include "apps/MessageConversion.h"

#include "common/Printable.h"
#include "common/SFormat.h"
#include "common/Utf8.h"

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>

namespace VtxQel
{

namespace proto = qel::apps::v1;

namespace
{

/** Deeper tables than this are nobody's honest data. */
constexpr int deepestTable = 16;
/** Names and short strings of AMQP. */
constexpr std::size_t longestShortString = 255;
/** A Configuration has to fit well into the 4 MiB that gRPC clients accept unless told otherwise. */
constexpr std::size_t mostConfigurationBytes = 2097152;

/** What is wrong with a message; does not leave this file. */
class Invalid : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/** Bytes for a field of the kind text: with one that is not UTF-8 an application could not read the whole message. */
std::string Text(const std::string& bytes)
{
    return IsUtf8(bytes) ? bytes : Printable(bytes);
}

void ToProto(const RmqTable& table, google::protobuf::RepeatedPtrField<proto::Header>& headers, int depth);

void ToProto(const RmqValue& value, proto::HeaderValue& out, int depth)
{
    if (const auto* yes = std::get_if<bool>(&value.value))
    {
        out.set_boolean(*yes);
    }
    else if (const auto* integer = std::get_if<std::int64_t>(&value.value))
    {
        out.set_integer(*integer);
    }
    else if (const auto* number = std::get_if<std::uint64_t>(&value.value))
    {
        if (value.kind == 'T')
        {
            out.mutable_timestamp()->set_seconds(static_cast<std::int64_t>(*number));
        }
        else
        {
            out.set_unsigned_integer(*number);
        }
    }
    else if (const auto* real = std::get_if<double>(&value.value))
    {
        out.set_number(*real);
    }
    else if (const auto* decimal = std::get_if<RmqDecimal>(&value.value))
    {
        out.mutable_decimal()->set_decimals(decimal->decimals);
        out.mutable_decimal()->set_value(decimal->value);
    }
    else if (const auto* text = std::get_if<std::string>(&value.value))
    {
        out.set_text(*text);
    }
    else if (const auto* table = std::get_if<RmqTable>(&value.value); table != nullptr && depth < deepestTable)
    {
        ToProto(*table, *out.mutable_table()->mutable_headers(), depth + 1);
    }
    else if (const auto* array = std::get_if<RmqArray>(&value.value); array != nullptr && depth < deepestTable)
    {
        proto::HeaderArray& items = *out.mutable_array();
        for (const RmqValue& item : *array)
        {
            ToProto(item, *items.add_values(), depth + 1);
        }
    }
    else
    {
        out.set_null(true);
    }
}

void ToProto(const RmqTable& table, google::protobuf::RepeatedPtrField<proto::Header>& headers, int depth)
{
    for (const auto& [name, value] : table)
    {
        proto::Header& header = *headers.Add();
        header.set_name(name);
        ToProto(value, *header.mutable_value(), depth);
    }
}

RmqTable TableFrom(const google::protobuf::RepeatedPtrField<proto::Header>& headers, int depth);

std::uint64_t SecondsFrom(const google::protobuf::Timestamp& timestamp, const std::string& what)
{
    if (timestamp.seconds() < 0)
    {
        throw Invalid(what + " lies before 1970, which AMQP cannot express");
    }
    return static_cast<std::uint64_t>(timestamp.seconds());
}

RmqValue DecimalFrom(const proto::Decimal& decimal)
{
    if (decimal.decimals() > std::numeric_limits<std::uint8_t>::max())
    {
        throw Invalid("a decimal header has more than 255 decimals");
    }
    return {'D', RmqDecimal{static_cast<std::uint8_t>(decimal.decimals()), decimal.value()}};
}

RmqValue UnsignedFrom(std::uint64_t number)
{
    if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    {
        throw Invalid("a header's unsigned_integer is above 9223372036854775807, which AMQP cannot express");
    }
    return RmqValue::Integer(static_cast<std::int64_t>(number));
}

RmqValue ArrayFrom(const proto::HeaderArray& values, int depth);

RmqValue ValueFrom(const proto::HeaderValue& value, int depth)
{
    if (depth > deepestTable)
    {
        throw Invalid(SFormat("headers are nested more than %d levels deep", deepestTable));
    }
    switch (value.kind_case())
    {
    case proto::HeaderValue::kBoolean:
        return RmqValue::Boolean(value.boolean());
    case proto::HeaderValue::kInteger:
        return RmqValue::Integer(value.integer());
    case proto::HeaderValue::kUnsignedInteger:
        return UnsignedFrom(value.unsigned_integer());
    case proto::HeaderValue::kNumber:
        return {'d', value.number()};
    case proto::HeaderValue::kText:
        return RmqValue::String(value.text());
    case proto::HeaderValue::kTable:
        return {'F', TableFrom(value.table().headers(), depth + 1)};
    case proto::HeaderValue::kArray:
        return ArrayFrom(value.array(), depth + 1);
    case proto::HeaderValue::kTimestamp:
        return RmqValue::Timestamp(SecondsFrom(value.timestamp(), "a timestamp header"));
    case proto::HeaderValue::kDecimal:
        return DecimalFrom(value.decimal());
    case proto::HeaderValue::kNull:
    case proto::HeaderValue::KIND_NOT_SET:
        break;
    }
    return {};
}

RmqValue ArrayFrom(const proto::HeaderArray& values, int depth)
{
    RmqArray items;
    for (const proto::HeaderValue& item : values.values())
    {
        items.push_back(ValueFrom(item, depth));
    }
    return {'A', std::move(items)};
}

std::string ShortString(const std::string& text, const char* what)
{
    if (text.size() > longestShortString)
    {
        throw Invalid(SFormat("%s has %zu bytes, AMQP allows %zu", what, text.size(), longestShortString));
    }
    return text;
}

RmqTable TableFrom(const google::protobuf::RepeatedPtrField<proto::Header>& headers, int depth)
{
    RmqTable table;
    for (const proto::Header& header : headers)
    {
        table.emplace_back(ShortString(header.name(), "a header's name"), ValueFrom(header.value(), depth));
    }
    return table;
}

std::uint8_t Octet(std::uint32_t number, const char* what)
{
    if (number > std::numeric_limits<std::uint8_t>::max())
    {
        throw Invalid(SFormat("%s is %u, AMQP allows 0 to 255", what, number));
    }
    return static_cast<std::uint8_t>(number);
}

std::string Expiration(const std::string& text)
{
    const auto isDigit = [](char character) { return character >= '0' && character <= '9'; };
    if (!std::all_of(text.begin(), text.end(), isDigit))
    {
        throw Invalid("expiration is not a number of milliseconds in decimal digits");
    }
    return ShortString(text, "expiration");
}

void Fill(const proto::Properties& from, RmqProperties& to)
{
    to.type = ShortString(from.type(), "type");
    to.replyTo = ShortString(from.reply_to(), "reply_to");
    to.correlationId = ShortString(from.correlation_id(), "correlation_id");
    to.appId = ShortString(from.app_id(), "app_id");
    to.messageId = ShortString(from.message_id(), "message_id");
    to.userId = ShortString(from.user_id(), "user_id");
    to.contentType = ShortString(from.content_type(), "content_type");
    to.contentEncoding = ShortString(from.content_encoding(), "content_encoding");
    to.expiration = Expiration(from.expiration());
    if (from.has_delivery_mode())
    {
        to.deliveryMode = Octet(from.delivery_mode(), "delivery_mode");
    }
    if (from.has_priority())
    {
        to.priority = Octet(from.priority(), "priority");
    }
    if (from.has_timestamp())
    {
        to.timestamp = SecondsFrom(from.timestamp(), "timestamp");
    }
    to.headers = TableFrom(from.headers(), 1);
}

bool AddWithin(
    const std::vector<std::string>& names, std::size_t& room, google::protobuf::RepeatedPtrField<std::string>& list)
{
    for (const std::string& name : names)
    {
        const std::string text = Text(name);
        if (text.size() + 4 > room)
        {
            return false;
        }
        room -= text.size() + 4;
        *list.Add() = text;
    }
    return true;
}

proto::Configuration::State ToProto(ConfigurationState state)
{
    switch (state)
    {
    case ConfigurationState::missing:
        return proto::Configuration::MISSING;
    case ConfigurationState::applying:
        return proto::Configuration::APPLYING;
    case ConfigurationState::applied:
        return proto::Configuration::APPLIED;
    case ConfigurationState::failed:
        break;
    }
    return proto::Configuration::FAILED;
}

struct TextField
{
    std::string RmqProperties::*from;
    std::string* (proto::Properties::*to)();
};

constexpr std::array<TextField, 9> textFields{
    {{&RmqProperties::type, &proto::Properties::mutable_type},
     {&RmqProperties::replyTo, &proto::Properties::mutable_reply_to},
     {&RmqProperties::correlationId, &proto::Properties::mutable_correlation_id},
     {&RmqProperties::appId, &proto::Properties::mutable_app_id},
     {&RmqProperties::messageId, &proto::Properties::mutable_message_id},
     {&RmqProperties::userId, &proto::Properties::mutable_user_id},
     {&RmqProperties::contentType, &proto::Properties::mutable_content_type},
     {&RmqProperties::contentEncoding, &proto::Properties::mutable_content_encoding},
     {&RmqProperties::expiration, &proto::Properties::mutable_expiration}}};

} // namespace

void ToProto(const RmqProperties& properties, proto::Properties& out)
{
    out.Clear();
    for (const TextField& field : textFields)
    {
        const std::string& text = properties.*field.from;
        if (!text.empty())
        {
            *(out.*field.to)() = text;
        }
    }
    if (properties.deliveryMode)
    {
        out.set_delivery_mode(*properties.deliveryMode);
    }
    if (properties.priority)
    {
        out.set_priority(*properties.priority);
    }
    if (properties.timestamp)
    {
        out.mutable_timestamp()->set_seconds(static_cast<std::int64_t>(*properties.timestamp));
    }
    ToProto(properties.headers, *out.mutable_headers(), 1);
}

void ToProto(const SessionDelivery& delivery, bool isPriority, proto::Delivery& out)
{
    const Delivery& message = *delivery.message;
    out.set_delivery_id(delivery.id);
    out.set_exchange(Text(message.GetExchange()));
    out.set_routing_key(message.GetRoutingKey());
    out.set_queue(message.GetQueue());
    out.clear_body();
    ToProto(*message.GetProperties(), *out.mutable_properties());
    out.set_redelivered(delivery.redelivered);
    out.set_tries(delivery.tries);
    out.set_priority(isPriority);
}

void ToProto(const ConfigurationStatus& status, proto::Configuration& out)
{
    out.set_state(ToProto(status.state));
    out.set_error(Text(status.error));
    std::size_t room = mostConfigurationBytes;
    const bool complete =
        AddWithin(status.queues, room, *out.mutable_queues()) && AddWithin(status.topics, room, *out.mutable_topics());
    out.set_incomplete(!complete);
}

proto::Broker::State ToProto(BrokerState state)
{
    switch (state)
    {
    case BrokerState::connected:
        return proto::Broker::CONNECTED;
    case BrokerState::blocked:
        return proto::Broker::BLOCKED;
    case BrokerState::disconnected:
        break;
    }
    return proto::Broker::DISCONNECTED;
}

std::string IdempotencyKey(const std::string& application, const std::string& messageId)
{
    if (messageId.empty())
    {
        return "";
    }
    std::string key = application + "/";
    for (const char character : messageId)
    {
        if (character > ' ' && character < 127 && character != '%')
        {
            key += character;
        }
        else
        {
            key += SFormat("%%%02X", static_cast<unsigned>(static_cast<unsigned char>(character)));
        }
    }
    return key;
}

std::string FromProto(const proto::Properties& from, RmqProperties& properties)
{
    try
    {
        Fill(from, properties);
        return "";
    }
    catch (const Invalid& error)
    {
        return error.what();
    }
}

std::string FromProto(proto::PublishRequest& request, OutgoingMessage& message)
{
    try
    {
        message.exchange = ShortString(request.exchange(), "exchange");
        message.routingKey = ShortString(request.routing_key(), "routing_key");
        Fill(request.properties(), message.properties);
    }
    catch (const Invalid& error)
    {
        return error.what();
    }
    message.mandatory = request.no_route_is_error();
    message.body = std::move(*request.mutable_body());
    return "";
}

} // namespace VtxQel

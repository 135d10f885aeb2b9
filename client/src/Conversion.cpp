#include "Conversion.h"

#include "common/Printable.h"
#include "common/Utf8.h"

#include <cstdint>
#include <type_traits>
#include <utility>

namespace qel
{

namespace v1 = apps::v1;

namespace
{

/** What the agent takes. */
constexpr std::size_t longestReason = 1024;

std::chrono::sys_seconds FromProto(const google::protobuf::Timestamp& timestamp)
{
    return std::chrono::sys_seconds(std::chrono::seconds(timestamp.seconds()));
}

Headers FromProto(google::protobuf::RepeatedPtrField<v1::Header>& headers);

HeaderValue FromProto(v1::HeaderValue& from)
{
    switch (from.kind_case())
    {
    case v1::HeaderValue::kBoolean:
        return {from.boolean()};
    case v1::HeaderValue::kInteger:
        return {from.integer()};
    case v1::HeaderValue::kUnsignedInteger:
        return {static_cast<std::int64_t>(from.unsigned_integer())};
    case v1::HeaderValue::kNumber:
        return {from.number()};
    case v1::HeaderValue::kText:
        return {std::move(*from.mutable_text())};
    case v1::HeaderValue::kTable:
        return {FromProto(*from.mutable_table()->mutable_headers())};
    case v1::HeaderValue::kArray:
    {
        HeaderArray items;
        for (v1::HeaderValue& item : *from.mutable_array()->mutable_values())
        {
            items.push_back(FromProto(item));
        }
        return {std::move(items)};
    }
    case v1::HeaderValue::kTimestamp:
        return {FromProto(from.timestamp())};
    case v1::HeaderValue::kDecimal:
        return {Decimal{from.decimal().decimals(), from.decimal().value()}};
    case v1::HeaderValue::kNull:
    case v1::HeaderValue::KIND_NOT_SET:
        break;
    }
    return {};
}

Headers FromProto(google::protobuf::RepeatedPtrField<v1::Header>& headers)
{
    Headers table;
    table.reserve(static_cast<std::size_t>(headers.size()));
    for (v1::Header& header : headers)
    {
        table.push_back({std::move(*header.mutable_name()), FromProto(*header.mutable_value())});
    }
    return table;
}

Properties FromProto(v1::Properties& from)
{
    Properties to;
    to.type = std::move(*from.mutable_type());
    to.replyTo = std::move(*from.mutable_reply_to());
    to.correlationId = std::move(*from.mutable_correlation_id());
    to.appId = std::move(*from.mutable_app_id());
    to.messageId = std::move(*from.mutable_message_id());
    to.userId = std::move(*from.mutable_user_id());
    to.contentType = std::move(*from.mutable_content_type());
    to.contentEncoding = std::move(*from.mutable_content_encoding());
    to.expiration = std::move(*from.mutable_expiration());
    if (from.has_delivery_mode())
    {
        to.deliveryMode = from.delivery_mode();
    }
    if (from.has_priority())
    {
        to.priority = from.priority();
    }
    if (from.has_timestamp())
    {
        to.timestamp = FromProto(from.timestamp());
    }
    to.headers = FromProto(*from.mutable_headers());
    return to;
}

void ToProto(const Headers& headers, google::protobuf::RepeatedPtrField<v1::Header>& out);

void ToProto(const HeaderValue& from, v1::HeaderValue& to)
{
    const auto convert = [&to](const auto& value)
    {
        using Type = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<Type, std::monostate>)
        {
            to.set_null(true);
        }
        else if constexpr (std::is_same_v<Type, bool>)
        {
            to.set_boolean(value);
        }
        else if constexpr (std::is_same_v<Type, std::int64_t>)
        {
            to.set_integer(value);
        }
        else if constexpr (std::is_same_v<Type, double>)
        {
            to.set_number(value);
        }
        else if constexpr (std::is_same_v<Type, std::string>)
        {
            to.set_text(value);
        }
        else if constexpr (std::is_same_v<Type, HeaderArray>)
        {
            to.mutable_array();
            for (const HeaderValue& item : value)
            {
                ToProto(item, *to.mutable_array()->add_values());
            }
        }
        else if constexpr (std::is_same_v<Type, Headers>)
        {
            ToProto(value, *to.mutable_table()->mutable_headers());
        }
        else if constexpr (std::is_same_v<Type, std::chrono::sys_seconds>)
        {
            to.mutable_timestamp()->set_seconds(value.time_since_epoch().count());
        }
        else
        {
            to.mutable_decimal()->set_decimals(value.decimals);
            to.mutable_decimal()->set_value(value.value);
        }
    };
    std::visit(convert, from.value);
}

void ToProto(const Headers& headers, google::protobuf::RepeatedPtrField<v1::Header>& out)
{
    for (const auto& [name, value] : headers)
    {
        v1::Header& header = *out.Add();
        header.set_name(name);
        ToProto(value, *header.mutable_value());
    }
}

void ToProto(const Properties& from, v1::Properties& to)
{
    to.set_type(from.type);
    to.set_reply_to(from.replyTo);
    to.set_correlation_id(from.correlationId);
    to.set_app_id(from.appId);
    to.set_message_id(from.messageId);
    to.set_user_id(from.userId);
    to.set_content_type(from.contentType);
    to.set_content_encoding(from.contentEncoding);
    to.set_expiration(from.expiration);
    if (from.deliveryMode)
    {
        to.set_delivery_mode(*from.deliveryMode);
    }
    if (from.priority)
    {
        to.set_priority(*from.priority);
    }
    if (from.timestamp)
    {
        to.mutable_timestamp()->set_seconds(from.timestamp->time_since_epoch().count());
    }
    ToProto(from.headers, *to.mutable_headers());
}

Configuration::State StateFrom(v1::Configuration::State state)
{
    switch (state)
    {
    case v1::Configuration::APPLYING:
        return Configuration::State::applying;
    case v1::Configuration::APPLIED:
        return Configuration::State::applied;
    case v1::Configuration::FAILED:
        return Configuration::State::failed;
    default:
        return Configuration::State::missing;
    }
}

} // namespace

BrokerState FromProto(const v1::Broker& broker)
{
    switch (broker.state())
    {
    case v1::Broker::CONNECTED:
        return BrokerState::connected;
    case v1::Broker::BLOCKED:
        return BrokerState::blocked;
    default:
        return BrokerState::disconnected;
    }
}

Message FromProto(v1::Delivery& delivery)
{
    Message message;
    message.exchange = std::move(*delivery.mutable_exchange());
    message.routingKey = std::move(*delivery.mutable_routing_key());
    message.queue = std::move(*delivery.mutable_queue());
    message.body = std::move(*delivery.mutable_body());
    message.properties = FromProto(*delivery.mutable_properties());
    message.redelivered = delivery.redelivered();
    message.tries = delivery.tries();
    message.priority = delivery.priority();
    message.idempotencyKey = std::move(*delivery.mutable_idempotency_key());
    return message;
}

Configuration FromProto(const v1::Configuration& from)
{
    Configuration to;
    to.state = StateFrom(from.state());
    to.error = from.error();
    to.topics.assign(from.topics().begin(), from.topics().end());
    to.queues.assign(from.queues().begin(), from.queues().end());
    to.incomplete = from.incomplete();
    return to;
}

Welcome FromProto(const v1::Welcome& from)
{
    return {from.application(),
            from.agent_version(),
            from.window(),
            from.ordering_key(),
            FromProto(from.configuration()),
            FromProto(from.broker())};
}

v1::PublishRequest ToProto(const Publication& publication)
{
    v1::PublishRequest request;
    request.set_exchange(publication.exchange);
    request.set_routing_key(publication.routingKey);
    request.set_body(publication.body);
    ToProto(publication.properties, *request.mutable_properties());
    request.set_no_route_is_error(publication.noRouteIsError);
    return request;
}

std::string ReasonText(const std::string& text)
{
    std::string reason = VtxQel::IsUtf8(text) ? text : VtxQel::Printable(text);
    if (reason.size() > longestReason)
    {
        reason.resize(longestReason);
        while (!VtxQel::IsUtf8(reason))
        {
            reason.pop_back();
        }
    }
    return reason;
}

} // namespace qel

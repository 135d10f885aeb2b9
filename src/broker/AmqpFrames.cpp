#include "broker/AmqpFrames.h"

#include "broker/HeaderCheck.h"
#include "common/QelException.h"

#include <boost/make_shared.hpp>

#include <algorithm>

#include <string.h>

namespace VtxQel
{

namespace
{

constexpr char END_OCTET = '\xCE';
constexpr std::size_t CONTENT_HEADER = FrameBuffer::BEGINNING;
/** Twice what RabbitMQ can be set to take. */
constexpr std::uint64_t LARGEST_BODY = 1073741824;

std::uint64_t ReadNumber(std::string_view bytes)
{
    std::uint64_t number = 0;
    for (const char octet : bytes)
    {
        number = number << 8U | static_cast<std::uint8_t>(octet);
    }
    return number;
}

void WriteNumber(char* at, std::uint64_t number, std::size_t octets)
{
    for (std::size_t i = octets; i-- > 0; number >>= 8U)
    {
        at[i] = static_cast<char>(number & 0xFFU);
    }
}

bool IsFromBrokers(amqp_method_number_t id)
{
    switch (id)
    {
    case AMQP_CONNECTION_START_METHOD:
    case AMQP_CONNECTION_SECURE_METHOD:
    case AMQP_CONNECTION_TUNE_METHOD:
    case AMQP_CONNECTION_OPEN_OK_METHOD:
    case AMQP_CONNECTION_CLOSE_METHOD:
    case AMQP_CONNECTION_CLOSE_OK_METHOD:
    case AMQP_CONNECTION_BLOCKED_METHOD:
    case AMQP_CONNECTION_UNBLOCKED_METHOD:
    case AMQP_CHANNEL_OPEN_OK_METHOD:
    case AMQP_CHANNEL_FLOW_METHOD:
    case AMQP_CHANNEL_CLOSE_METHOD:
    case AMQP_CHANNEL_CLOSE_OK_METHOD:
    case AMQP_EXCHANGE_DECLARE_OK_METHOD:
    case AMQP_QUEUE_DECLARE_OK_METHOD:
    case AMQP_QUEUE_BIND_OK_METHOD:
    case AMQP_QUEUE_UNBIND_OK_METHOD:
    case AMQP_BASIC_QOS_OK_METHOD:
    case AMQP_BASIC_CONSUME_OK_METHOD:
    case AMQP_BASIC_CANCEL_METHOD:
    case AMQP_BASIC_CANCEL_OK_METHOD:
    case AMQP_BASIC_RETURN_METHOD:
    case AMQP_BASIC_DELIVER_METHOD:
    case AMQP_BASIC_ACK_METHOD:
    case AMQP_BASIC_NACK_METHOD:
    case AMQP_CONFIRM_SELECT_OK_METHOD:
        return true;
    default:
        return false;
    }
}

/** Why the arguments must not be decoded: the only ones from a broker that hold a table are connection.start's. */
std::string RefuseArguments(amqp_method_number_t id, std::string_view arguments)
{
    constexpr std::size_t VERSION = 2;
    if (id != AMQP_CONNECTION_START_METHOD)
    {
        return {};
    }
    return RefuseTable(arguments.substr(std::min(VERSION, arguments.size())));
}

} // namespace

void AmqpFrames::ProtocolHeader()
{
    m_out.append("AMQP\x00\x00\x09\x01", 8);
}

void AmqpFrames::Heartbeat()
{
    Frame(AMQP_FRAME_HEARTBEAT, 0, {});
}

void AmqpFrames::Method(std::uint16_t channel, amqp_method_number_t id, void* method)
{
    const std::size_t room = std::min(m_scratch.size(), m_frameMax) - OVERHEAD;
    WriteNumber(m_scratch.data(), id, 4);
    const int size = amqp_encode_method(id, method, {room - 4, m_scratch.data() + 4});
    if (size < 0)
    {
        throw RmqMessageException(
            std::string(amqp_method_name(id)) + " cannot be encoded: " + amqp_error_string2(size));
    }
    Frame(AMQP_FRAME_METHOD, channel, {m_scratch.data(), static_cast<std::size_t>(size) + 4});
}

void AmqpFrames::Content(std::uint16_t channel, amqp_basic_properties_t& properties, std::string_view body)
{
    const std::size_t room = std::min(m_scratch.size(), m_frameMax) - OVERHEAD;
    WriteNumber(m_scratch.data(), AMQP_BASIC_CLASS, 2);
    WriteNumber(m_scratch.data() + 2, 0, 2);
    WriteNumber(m_scratch.data() + 4, body.size(), 8);
    const int size = amqp_encode_properties(
        AMQP_BASIC_CLASS, &properties, {room - CONTENT_HEADER, m_scratch.data() + CONTENT_HEADER});
    if (size < 0)
    {
        throw RmqMessageException(std::string("message properties cannot be encoded: ") + amqp_error_string2(size));
    }
    Frame(AMQP_FRAME_HEADER, channel, {m_scratch.data(), static_cast<std::size_t>(size) + CONTENT_HEADER});
    const std::size_t piece = m_frameMax - OVERHEAD;
    for (; !body.empty(); body.remove_prefix(std::min(piece, body.size())))
    {
        Frame(AMQP_FRAME_BODY, channel, body.substr(0, piece));
    }
}

void AmqpFrames::Wipe()
{
    explicit_bzero(m_scratch.data(), m_scratch.size());
}

void AmqpFrames::Frame(std::uint8_t type, std::uint16_t channel, std::string_view payload)
{
    Number(type, 1);
    Number(channel, 2);
    Number(payload.size(), 4);
    m_out.append(payload);
    m_out.push_back(END_OCTET);
}

void AmqpFrames::Number(std::uint64_t number, std::size_t octets)
{
    char bytes[8];
    WriteNumber(bytes, number, octets);
    m_out.append(bytes, octets);
}

amqp_method_t DecodeMethod(std::string_view payload, AmqpPool& pool)
{
    constexpr std::size_t ID = 4;
    if (payload.size() < ID)
    {
        throw RmqConnectionException("received a method frame that is too short");
    }
    amqp_method_t method{};
    method.id = static_cast<amqp_method_number_t>(ReadNumber(payload.substr(0, ID)));
    const auto received = [&method]
    { return "received method " + std::to_string(method.id >> 16U) + "." + std::to_string(method.id & 0xFFFFU); };
    if (!IsFromBrokers(method.id))
    {
        throw RmqConnectionException(received() + ", which no broker sends");
    }
    const std::string_view arguments = payload.substr(ID);
    std::string why = RefuseArguments(method.id, arguments);
    if (why.empty())
    {
        const int status = amqp_decode_method(method.id, pool.Get(), ToAmqp(arguments), &method.decoded);
        why = status < 0 ? amqp_error_string2(status) : "";
    }
    if (!why.empty())
    {
        throw RmqConnectionException(received() + ", which cannot be decoded: " + why);
    }
    return method;
}

AmqpContent StartContent(const amqp_method_t& method)
{
    AmqpContent content;
    content.method = method.id;
    if (method.id == AMQP_BASIC_DELIVER_METHOD)
    {
        const auto& deliver = *static_cast<const amqp_basic_deliver_t*>(method.decoded);
        content.deliveryTag = deliver.delivery_tag;
        content.redelivered = deliver.redelivered != 0;
        content.exchange = FromAmqp(deliver.exchange);
        content.routingKey = FromAmqp(deliver.routing_key);
    }
    else
    {
        const auto& returned = *static_cast<const amqp_basic_return_t*>(method.decoded);
        content.exchange = FromAmqp(returned.exchange);
        content.routingKey = FromAmqp(returned.routing_key);
    }
    return content;
}

void AddHeader(AmqpContent& content, const RawFrame& frame, AmqpPool& pool, std::size_t maxBody)
{
    const std::string_view payload = frame.payload;
    if (payload.size() < CONTENT_HEADER || content.hasHeader)
    {
        throw RmqConnectionException("received a content header out of place");
    }
    content.hasHeader = true;
    content.declaredSize = ReadNumber(payload.substr(4, 8));
    if (content.declaredSize > LARGEST_BODY)
    {
        throw RmqConnectionException(
            "received the header of a body of " + std::to_string(content.declaredSize) + " bytes, which is a lie");
    }
    content.properties = boost::make_shared<RmqProperties>();
    const std::string_view encoded = payload.substr(CONTENT_HEADER);
    content.refused = frame.isCut ? "headers larger than a frame" : RefuseHeaders(encoded);
    if (content.refused.empty())
    {
        void* decoded = nullptr;
        if (amqp_decode_properties(AMQP_BASIC_CLASS, pool.Get(), ToAmqp(encoded), &decoded) < 0)
        {
            content.refused = "malformed message properties";
        }
        else
        {
            FromAmqp(*static_cast<const amqp_basic_properties_t*>(decoded), *content.properties);
        }
    }
    content.isOverLimit = content.declaredSize > maxBody;
    if (content.refused.empty() && content.isOverLimit)
    {
        content.refused = "body of " + std::to_string(content.declaredSize) + " bytes is over the limit of " +
                          std::to_string(maxBody);
    }
}

void AddBody(AmqpContent& content, std::string_view payload)
{
    content.receivedSize += payload.size();
    if (!content.hasHeader || content.receivedSize > content.declaredSize)
    {
        throw RmqConnectionException("received body bytes that were not declared");
    }
    if (content.isOverLimit)
    {
        return;
    }
    const auto declared = static_cast<std::size_t>(content.declaredSize);
    if (content.body.capacity() < declared && content.receivedSize >= declared / 4)
    {
        // It seems to be true: one growth to the end instead of doublings.
        content.body.reserve(declared);
    }
    content.body.append(payload);
}

bool IsComplete(const AmqpContent& content)
{
    return content.hasHeader && content.receivedSize == content.declaredSize;
}

} // namespace VtxQel

// Message properties and header tables, decoded from the wire as the agent does it, and everything they are turned into
// on their way: encoded again, a message, its form for applications, what qelctl prints. An input may as well be a
// request to publish, as an application sends it.

#include "Bytes.h"
#include "Require.h"
#include "SilentBroker.h"
#include "apps/MessageConversion.h"
#include "apps/RawMessage.h"
#include "broker/AmqpFrames.h"
#include "broker/BrokerMessage.h"
#include "broker/FrameBuffer.h"
#include "broker/HeaderCheck.h"
#include "common/QelException.h"
#include "qelctl/DeadLetter.h"
#include "qelctl/TableJson.h"
#include "qelctl/TextForms.h"

#include <boost/make_shared.hpp>
#include <google/protobuf/stubs/logging.h>

#include <cstring>
#include <string_view>

namespace VtxQel::Fuzz
{
namespace
{

constexpr std::size_t MAX_BODY = 1000;

/** The payload of a content header: class, weight, body size, then what is encoded. */
std::string ContentHeader(std::uint8_t bodySize, const std::string& encoded)
{
    std::string payload(12, '\0');
    payload[1] = AMQP_BASIC_CLASS;
    payload[11] = static_cast<char>(bodySize);
    return payload + encoded;
}

/** The content whose header is the payload. */
AmqpContent Decode(const std::string& payload)
{
    // Of exactly this size, so that reading one byte too many is noticed.
    const std::vector<char> bytes(payload.begin(), payload.end());
    AmqpPool pool;
    AmqpContent content;
    content.method = AMQP_BASIC_DELIVER_METHOD;
    AddHeader(content, RawFrame{AMQP_FRAME_HEADER, 1, {bytes.data(), bytes.size()}}, pool, MAX_BODY);
    return content;
}

/** The payload of the content header that says the same as the properties. */
std::string Encode(const RmqProperties& properties)
{
    std::string frames;
    AmqpPool pool;
    amqp_basic_properties_t encodable = ToAmqp(properties, pool);
    AmqpFrames(frames).Content(1, encodable, {});
    return frames.substr(7, frames.size() - AmqpFrames::OVERHEAD);
}

std::size_t DepthOf(const RmqTable& table);

std::size_t DepthOf(const RmqValue& value)
{
    if (const auto* table = std::get_if<RmqTable>(&value.value))
    {
        return DepthOf(*table);
    }
    std::size_t depth = 0;
    if (const auto* array = std::get_if<RmqArray>(&value.value))
    {
        for (const RmqValue& element : *array)
        {
            depth = std::max(depth, DepthOf(element));
        }
        ++depth;
    }
    return depth;
}

std::size_t DepthOf(const RmqTable& table)
{
    std::size_t depth = 0;
    for (const auto& [name, value] : table)
    {
        depth = std::max(depth, DepthOf(value));
    }
    return depth + 1;
}

/** What was decoded can be sent on, and says the same when it comes back. */
void CheckRoundTrip(const RmqProperties& properties)
{
    Require(DepthOf(properties.headers) <= MAX_HEADER_DEPTH, "the nesting is bounded");
    const std::string encoded = Encode(properties);
    const AmqpContent again = Decode(encoded);
    Require(again.refused.empty(), "what was encoded here is accepted here");
    Require(Encode(*again.properties) == encoded, "properties survive the way there and back");
}

/** The form for applications can be sent, also back. */
void CheckConversion(const RmqProperties& properties)
{
    qel::apps::v1::Properties proto;
    ToProto(properties, proto);
    qel::apps::v1::Properties received;
    Require(received.ParseFromString(proto.SerializeAsString()), "an application can read the properties");
    RmqProperties back;
    const std::string mistake = FromProto(received, back);
    Require(IsOneLine(mistake), "a mistake is one line");
    if (mistake.empty())
    {
        CheckRoundTrip(back);
    }
}

void CheckMessage(const boost::shared_ptr<BrokerMessage>& message)
{
    Require(IsOneLine(message->ToString()), "a message is shown on one line");
    Require(message->GetTries() <= INT32_MAX, "the tries are counted within bounds");
    Require(message->GetBodyLength() == message->GetBody()->length, "the body has its length");
    qel::apps::v1::Delivery delivery;
    ToProto(SessionDelivery{1, message, message->GetTries(), message->IsRedelivered()}, false, delivery);
    const boost::shared_ptr<RmqBody> body = message->GetBody();
    grpc::ByteBuffer bytes;
    SerializeAlone(delivery, body, bytes);
    qel::apps::v1::AttachResponse received;
    Require(Parse(bytes, received).empty(), "an application can read the delivery");
    Require(received.deliveries().deliveries_size() == 1, "a delivery is sent once");
    const std::string_view sent(reinterpret_cast<const char*>(body->bytes), body->length);
    Require(received.deliveries().deliveries(0).body() == sent, "the body arrives as it came");
}

/** What qelctl prints of it does not throw. */
void CheckPrinted(IncomingMessage&& incoming)
{
    const RmqProperties& properties = *incoming.properties;
    Require(
        !ToJson(properties.headers).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).empty(),
        "headers have a text");
    const DeadLetter letter = DeadLetter::Of(properties);
    Require(IsOneLine(ForTerminal(letter.reason + letter.application)), "a dead letter is printed on one line");
    if (const auto replay = MakeReplay(incoming, ReplayTo::best, "client"))
    {
        Require(replay->properties.userId.empty(), "a replayed message has no user");
        CheckRoundTrip(replay->properties);
    }
}

void CheckProperties(Bytes& input)
{
    const std::uint8_t what = input.Octet();
    const std::uint8_t bodySize = input.Octet();
    const AmqpContent content = Decode(ContentHeader(bodySize, input.Rest()));
    Require(IsOneLine(content.refused), "a refusal is one line");
    if (!content.refused.empty())
    {
        return;
    }
    CheckRoundTrip(*content.properties);
    CheckConversion(*content.properties);
    const auto incoming = [&]
    {
        IncomingMessage message;
        message.queue = (what & 1U) != 0 ? SilentBroker::Instance().Parking() : "client";
        message.exchange = content.properties->replyTo;
        message.routingKey = content.properties->type;
        message.redelivered = (what & 2U) != 0;
        message.properties = boost::make_shared<RmqProperties>(*content.properties);
        message.body = std::string(bodySize, 'b');
        return message;
    };
    CheckMessage(SilentBroker::Instance().Message(incoming()));
    CheckPrinted(incoming());
}

void CheckRequest(Bytes& input)
{
    qel::apps::v1::PublishRequest request;
    if (!request.ParseFromString(input.Rest()))
    {
        return;
    }
    OutgoingMessage message;
    const std::string mistake = FromProto(request, message);
    Require(IsOneLine(mistake), "a mistake is one line");
    if (mistake.empty())
    {
        Require(message.exchange.size() <= 255 && message.routingKey.size() <= 255, "names fit their fields");
        CheckRoundTrip(message.properties);
    }
}

} // namespace
} // namespace VtxQel::Fuzz

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace VtxQel::Fuzz;
    // The library would write a line for every text that is none.
    google::protobuf::SetLogHandler(nullptr);
    Bytes input(data, size);
    if (input.Octet() == 'P')
    {
        CheckRequest(input);
    }
    else
    {
        CheckProperties(input);
    }
    return 0;
}

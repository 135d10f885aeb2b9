#include "apps/RawMessage.h"

#include "common/SFormat.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/slice.h>

#include <array>
#include <memory>

namespace VtxQel
{

namespace proto = qel::apps::v1;

using google::protobuf::io::CodedOutputStream;
using Traits = grpc::SerializationTraits<google::protobuf::MessageLite>;

namespace
{

/** Where a field with a length of its own begins (Protocol Buffers, Encoding: tag, then length, then what it holds). */
void WriteStart(CodedOutputStream& out, int field, std::size_t length)
{
    constexpr std::uint32_t lengthDelimited = 2;
    out.WriteTag(static_cast<std::uint32_t>(field) << 3U | lengthDelimited);
    out.WriteVarint32(static_cast<std::uint32_t>(length));
}

/** The bytes of a field with a length of its own, one of the first fifteen. */
std::size_t FieldSize(std::size_t length)
{
    return 1 + CodedOutputStream::VarintSize32(static_cast<std::uint32_t>(length)) + length;
}

} // namespace

std::string Parse(grpc::ByteBuffer& bytes, google::protobuf::MessageLite& message)
{
    if (Traits::Deserialize(&bytes, &message).ok())
    {
        return "";
    }
    return SFormat(
        "the bytes are no %s: send what the interface's .proto file describes, with valid UTF-8 in fields of the type "
        "string",
        message.GetTypeName().c_str());
}

void Serialize(const google::protobuf::MessageLite& message, grpc::ByteBuffer& bytes)
{
    bytes.Clear();
    bool own = false;
    Traits::Serialize(message, &bytes, &own);
}

void SerializeAlone(const proto::Delivery& delivery, const boost::shared_ptr<RmqBody>& body, grpc::ByteBuffer& bytes)
{
    using Held = boost::shared_ptr<RmqBody>;
    const std::size_t deliverySize = delivery.ByteSizeLong() + FieldSize(body->length);
    std::string start;
    {
        google::protobuf::io::StringOutputStream stream(&start);
        CodedOutputStream out(&stream);
        WriteStart(out, proto::AttachResponse::kDeliveriesFieldNumber, FieldSize(deliverySize));
        WriteStart(out, proto::DeliveryBatch::kDeliveriesFieldNumber, deliverySize);
        delivery.SerializeWithCachedSizes(&out);
        WriteStart(out, proto::Delivery::kBodyFieldNumber, body->length);
    }
    const std::array<grpc::Slice, 2> slices{
        grpc::Slice(start), grpc::Slice(
                                const_cast<std::uint8_t*>(body->bytes), body->length,
                                [](void* held) { const std::unique_ptr<Held> last(static_cast<Held*>(held)); },
                                std::make_unique<Held>(body).release())};
    bytes = grpc::ByteBuffer(slices.data(), slices.size());
}

} // namespace VtxQel

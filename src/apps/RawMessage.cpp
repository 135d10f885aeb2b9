#include "apps/RawMessage.h"

#include "common/SFormat.h"

#include <grpcpp/impl/codegen/proto_utils.h>

namespace VtxQel
{

using Traits = grpc::SerializationTraits<google::protobuf::MessageLite>;

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

} // namespace VtxQel

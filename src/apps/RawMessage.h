#pragma once

#include <google/protobuf/message_lite.h>
#include <grpcpp/support/byte_buffer.h>

#include <string>

namespace VtxQel
{

// Requests are parsed here and not by gRPC, which ends a call with bad bytes as if nobody served it, and a stream as if
// the peer had closed its side.

/**
 * Parses what a peer has sent; the bytes are used up.
 * @return empty, or what is wrong with it.
 */
std::string Parse(grpc::ByteBuffer& bytes, google::protobuf::MessageLite& message);

/** The message as it goes to a peer. */
void Serialize(const google::protobuf::MessageLite& message, grpc::ByteBuffer& bytes);

} // namespace VtxQel

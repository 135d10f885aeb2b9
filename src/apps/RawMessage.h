#pragma once

#include "common/RmqMessage.h"
#include "qel/apps/v1/applications.pb.h"

#include <boost/shared_ptr.hpp>
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

/**
 * A response of Attach with this one delivery as it goes to a peer. The body is not copied but sent from where it is;
 * its record is held until then.
 * @param delivery has no body.
 */
void SerializeAlone(
    const qel::apps::v1::Delivery& delivery, const boost::shared_ptr<RmqBody>& body, grpc::ByteBuffer& bytes);

} // namespace VtxQel

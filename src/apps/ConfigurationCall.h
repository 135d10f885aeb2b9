#pragma once

#include "apps/UnaryCall.h"
#include "common/Publisher.h"
#include "qel/apps/v1/applications.pb.h"

#include <grpcpp/support/byte_buffer.h>

#include <functional>
#include <string>

namespace VtxQel
{

/** Asks the management plane for an application's configuration and reports what became of the request. */
using ConfigurationAsker = std::function<void(const std::string& application, PublishCompletion completion)>;

/** ConfigurationCall is one RequestConfiguration call: it is answered when the request is out. */
class ConfigurationCall : public UnaryCall
{
  public:
    /** Asks. @param configuration the answer, as it is in force. Call once, when a shared pointer owns the call. */
    void Start(
        const ConfigurationAsker& asker, const std::string& application,
        const qel::apps::v1::RequestConfigurationResponse& answer, grpc::ByteBuffer& response);
    /** Refuses, without asking. */
    void Refuse(const grpc::Status& status);
};

} // namespace VtxQel

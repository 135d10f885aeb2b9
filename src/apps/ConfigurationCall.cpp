#include "apps/ConfigurationCall.h"

#include "apps/RawMessage.h"

namespace VtxQel
{

namespace
{

grpc::Status StatusOfAsking(PublishResult result, const std::string& why)
{
    switch (result)
    {
    case PublishResult::confirmed:
        return grpc::Status::OK;
    case PublishResult::noRoute:
        return {
            grpc::StatusCode::NOT_FOUND,
            "no queue takes the request: the management plane is not there; wait for the Configuration or ask later"};
    case PublishResult::refused:
        return {
            grpc::StatusCode::FAILED_PRECONDITION, why + ": the operator has to mend [management] in the agent's file"};
    case PublishResult::timedOut:
        return {grpc::StatusCode::DEADLINE_EXCEEDED, why + ": the management plane may have the request"};
    case PublishResult::notSent:
    case PublishResult::overloaded:
        break;
    }
    return {grpc::StatusCode::UNAVAILABLE, why + ": not sent, try again later"};
}

} // namespace

void ConfigurationCall::Start(
    const ConfigurationAsker& asker, const std::string& application,
    const qel::apps::v1::RequestConfigurationResponse& answer, grpc::ByteBuffer& response)
{
    Begin();
    Serialize(answer, response);
    asker(
        application, [this, self = shared_from_this()](PublishResult result, const std::string& why)
        { FinishOnce(StatusOfAsking(result, why)); });
}

void ConfigurationCall::Refuse(const grpc::Status& status)
{
    Begin();
    FinishOnce(status);
}

} // namespace VtxQel

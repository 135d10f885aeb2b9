#include "UnaryCalls.h"

#include "Conversion.h"
#include "RepeatedCall.h"

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>

namespace qel
{

namespace v1 = apps::v1;

namespace
{

constexpr std::uint32_t persistent = 2;

/** 128 bits at random. */
std::string NewMessageId()
{
    std::random_device random;
    std::ostringstream id;
    id << std::hex << std::setfill('0');
    for (int word = 0; word < 4; ++word)
    {
        id << std::setw(8) << random();
    }
    return id.str();
}

PublishError::Kind PublishErrorKind(grpc::StatusCode code)
{
    if (code == grpc::StatusCode::NOT_FOUND)
    {
        return PublishError::Kind::noRoute;
    }
    return IsFinal(code) ? PublishError::Kind::refused : PublishError::Kind::unconfirmed;
}

ConfigurationError::Kind ConfigurationErrorKind(grpc::StatusCode code)
{
    switch (code)
    {
    case grpc::StatusCode::NOT_FOUND:
        return ConfigurationError::Kind::noPlane;
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
        return ConfigurationError::Kind::tooSoon;
    default:
        return IsFinal(code) ? ConfigurationError::Kind::notSetUp : ConfigurationError::Kind::unconfirmed;
    }
}

/** gRPC itself refuses what is too large, in words of its own. */
std::string PublishErrorText(const grpc::Status& status)
{
    return (status.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED ? "the message is too large for the agent: "
                                                                        : "") +
           status.error_message();
}

} // namespace

void Publish(v1::Applications::Stub& stub, const Publication& publication, std::chrono::milliseconds deadline)
{
    v1::PublishRequest request = ToProto(publication);
    v1::Properties& properties = *request.mutable_properties();
    if (properties.message_id().empty())
    {
        properties.set_message_id(NewMessageId());
    }
    if (!properties.has_delivery_mode())
    {
        properties.set_delivery_mode(persistent);
    }
    v1::PublishResponse response;
    const grpc::Status status = CallRepeatedly(
        [&](grpc::ClientContext& context) { return stub.Publish(&context, request, &response); }, deadline);
    if (!status.ok())
    {
        throw PublishError(PublishErrorKind(status.error_code()), PublishErrorText(status));
    }
}

Configuration RequestConfiguration(v1::Applications::Stub& stub, std::chrono::milliseconds deadline)
{
    const v1::RequestConfigurationRequest request;
    v1::RequestConfigurationResponse response;
    const grpc::Status status = CallRepeatedly(
        [&](grpc::ClientContext& context) { return stub.RequestConfiguration(&context, request, &response); },
        deadline);
    if (!status.ok())
    {
        throw ConfigurationError(ConfigurationErrorKind(status.error_code()), status.error_message());
    }
    return FromProto(response.configuration());
}

} // namespace qel

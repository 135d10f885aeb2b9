#include "PublishLoop.h"

#include "Conversion.h"

#include <grpcpp/grpcpp.h>

#include <cstdint>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <thread>

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

bool IsRefusal(grpc::StatusCode code)
{
    switch (code)
    {
    case grpc::StatusCode::INVALID_ARGUMENT:
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
    case grpc::StatusCode::PERMISSION_DENIED:
    case grpc::StatusCode::UNIMPLEMENTED:
        return true;
    default:
        return false;
    }
}

} // namespace

PublishLoop::PublishLoop(
    v1::Applications::Stub& stub, const Publication& publication, std::chrono::milliseconds deadline)
    : m_stub(stub), m_deadline(std::chrono::system_clock::now() + deadline), m_request(ToProto(publication))
{
    v1::Properties& properties = *m_request.mutable_properties();
    if (properties.message_id().empty())
    {
        properties.set_message_id(NewMessageId());
    }
    if (!properties.has_delivery_mode())
    {
        properties.set_delivery_mode(persistent);
    }
}

void PublishLoop::Run()
{
    for (;;)
    {
        const grpc::Status status = Attempt();
        if (status.ok())
        {
            return;
        }
        if (status.error_code() == grpc::StatusCode::NOT_FOUND)
        {
            throw PublishError(PublishError::Kind::noRoute, status.error_message());
        }
        if (IsRefusal(status.error_code()))
        {
            throw PublishError(PublishError::Kind::refused, status.error_message());
        }
        const BackOff::Milliseconds pause = m_pauses.Next();
        if (std::chrono::system_clock::now() + pause >= m_deadline)
        {
            throw PublishError(PublishError::Kind::unconfirmed, status.error_message());
        }
        std::this_thread::sleep_for(pause);
    }
}

grpc::Status PublishLoop::Attempt()
{
    grpc::ClientContext context;
    context.set_deadline(m_deadline);
    v1::PublishResponse response;
    return m_stub.Publish(&context, m_request, &response);
}

} // namespace qel

#include "RepeatedCall.h"

#include "BackOff.h"

#include <string>
#include <thread>

namespace qel
{

bool IsFinal(grpc::StatusCode code)
{
    switch (code)
    {
    case grpc::StatusCode::INVALID_ARGUMENT:
    case grpc::StatusCode::NOT_FOUND:
    case grpc::StatusCode::FAILED_PRECONDITION:
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
    case grpc::StatusCode::PERMISSION_DENIED:
    case grpc::StatusCode::UNIMPLEMENTED:
        return true;
    default:
        return false;
    }
}

grpc::Status CallRepeatedly(const Attempt& attempt, std::chrono::milliseconds deadline)
{
    const auto until = std::chrono::system_clock::now() + deadline;
    BackOff pauses{std::chrono::milliseconds(50), std::chrono::milliseconds(1000)};
    std::string before;
    for (;;)
    {
        grpc::ClientContext context;
        context.set_deadline(until);
        grpc::Status status = attempt(context);
        if (status.ok() || IsFinal(status.error_code()))
        {
            return status;
        }
        if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED && !before.empty())
        {
            // That the time was up says nothing of why it was not enough.
            return {status.error_code(), status.error_message() + "; the attempt before: " + before};
        }
        before = status.error_message();
        const BackOff::Milliseconds pause = pauses.Next();
        if (std::chrono::system_clock::now() + pause >= until)
        {
            return status;
        }
        std::this_thread::sleep_for(pause);
    }
}

} // namespace qel

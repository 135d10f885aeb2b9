#include "apps/PublishCall.h"

#include "apps/MessageConversion.h"
#include "apps/RawMessage.h"
#include "common/SFormat.h"

#include <grpcpp/server_context.h>

#include <algorithm>

namespace VtxQel
{

namespace
{

/** What a caller without a deadline of its own gets, and the longest. */
constexpr std::chrono::milliseconds longestWait{30000};
/** What the answer needs to reach a caller before he gives up, who would not learn then whether it was sent. */
constexpr std::chrono::milliseconds longestWayBack{250};

std::chrono::milliseconds WaitOf(const grpc::CallbackServerContext& context)
{
    const auto left = context.deadline() - std::chrono::system_clock::now();
    const auto inMilliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(left);
    const auto wayBack = std::min(inMilliseconds / 4, longestWayBack);
    return std::clamp(inMilliseconds - wayBack, std::chrono::milliseconds(1), longestWait);
}

} // namespace

bool PublishQuota::TryTake(std::size_t bytes)
{
    const std::size_t calls = m_calls.fetch_add(1);
    const std::size_t before = m_bytes.fetch_add(bytes);
    if (calls >= mostCalls || (before != 0 && before + bytes > mostBytes))
    {
        GiveBack(bytes);
        return false;
    }
    return true;
}

void PublishQuota::GiveBack(std::size_t bytes)
{
    m_calls.fetch_sub(1);
    m_bytes.fetch_sub(bytes);
}

grpc::Status StatusOf(PublishResult result, const std::string& why)
{
    const auto text = [&why](const char* otherwise) { return why.empty() ? std::string(otherwise) : why; };
    switch (result)
    {
    case PublishResult::confirmed:
        return grpc::Status::OK;
    case PublishResult::noRoute:
        return {
            grpc::StatusCode::NOT_FOUND,
            text("no queue takes the message") +
                ": is its receiver configured? Without no_route_is_error the broker drops such messages"};
    case PublishResult::refused:
        return {
            grpc::StatusCode::INVALID_ARGUMENT,
            text("the broker refuses the message") + ": not sent, mend the message or the broker's configuration"};
    case PublishResult::timedOut:
        return {
            grpc::StatusCode::DEADLINE_EXCEEDED,
            text("no confirm in time") + ": the broker may have the message, repeat it with the same message_id"};
    case PublishResult::notSent:
        return {grpc::StatusCode::UNAVAILABLE, text("the broker is away") + ": not sent, try again later"};
    case PublishResult::overloaded:
        break;
    }
    return {grpc::StatusCode::UNAVAILABLE, text("too much is waiting to be published") + ": not sent, try again later"};
}

PublishCall::PublishCall(boost::shared_ptr<PublishQuota> quota) : m_quota(std::move(quota)) {}

PublishCall::~PublishCall()
{
    if (m_taken)
    {
        m_quota->GiveBack(m_bytes);
    }
}

void PublishCall::Start(
    Publisher& publisher, const grpc::CallbackServerContext& context, grpc::ByteBuffer& request,
    grpc::ByteBuffer& response)
{
    Begin();
    Serialize(qel::apps::v1::PublishResponse(), response);
    qel::apps::v1::PublishRequest parsed;
    std::string wrong = Parse(request, parsed);
    m_bytes = parsed.body().size();
    OutgoingMessage message;
    if (wrong.empty())
    {
        wrong = FromProto(parsed, message);
    }
    if (!wrong.empty())
    {
        FinishOnce({grpc::StatusCode::INVALID_ARGUMENT, wrong});
        return;
    }
    m_taken = m_quota->TryTake(m_bytes);
    if (!m_taken)
    {
        FinishOnce(
            {grpc::StatusCode::UNAVAILABLE,
             SFormat(
                 "%zu messages or %zu MiB of this application wait for their confirms: not sent, wait for some answers "
                 "and try again",
                 PublishQuota::mostCalls, PublishQuota::mostBytes / 1048576)});
        return;
    }
    message.deadline = WaitOf(context);
    publisher.Publish(
        std::move(message), [this, self = shared_from_this()](PublishResult result, const std::string& why)
        { FinishOnce(StatusOf(result, why)); });
}

} // namespace VtxQel

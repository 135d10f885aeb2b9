#include "apps/ApplicationService.h"

#include <boost/smart_ptr/make_shared.hpp>

namespace VtxQel
{

namespace proto = qel::apps::v1;

ApplicationService::ApplicationService(ServiceContext context)
    : m_context(std::move(context)), m_quota(boost::make_shared<PublishQuota>())
{
}

void ApplicationService::ConfigurationChanged()
{
    for (const auto& session : Sessions())
    {
        session->ConfigurationChanged();
    }
}

grpc::ServerBidiReactor<proto::AttachRequest, proto::AttachResponse>* ApplicationService::Attach(
    grpc::CallbackServerContext* /*context*/)
{
    const auto session = boost::make_shared<AttachSession>(m_context);
    {
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_sessions, [](const auto& known) { return known.expired(); });
        m_sessions.emplace_back(session);
    }
    session->Start();
    return session.get();
}

grpc::ServerUnaryReactor* ApplicationService::Publish(
    grpc::CallbackServerContext* context, const proto::PublishRequest* request, proto::PublishResponse* /*response*/)
{
    const auto call = boost::make_shared<PublishCall>(m_quota);
    // The request belongs to this call alone and is not looked at again: its body, which may be large, is moved.
    call->Start(m_context.publisher, *context, const_cast<proto::PublishRequest&>(*request));
    return call.get();
}

std::vector<boost::shared_ptr<AttachSession>> ApplicationService::Sessions()
{
    const std::lock_guard lock(m_mutex);
    std::vector<boost::shared_ptr<AttachSession>> sessions;
    for (const auto& known : m_sessions)
    {
        if (auto session = known.lock())
        {
            sessions.push_back(std::move(session));
        }
    }
    return sessions;
}

} // namespace VtxQel

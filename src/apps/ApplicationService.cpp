#include "apps/ApplicationService.h"

#include "apps/MessageConversion.h"
#include "apps/RawMessage.h"
#include "common/SFormat.h"

#include <boost/smart_ptr/make_shared.hpp>

namespace VtxQel
{

namespace proto = qel::apps::v1;

ApplicationService::ApplicationService(ServiceContext context)
    : m_context(std::move(context)), m_quota(boost::make_shared<PublishQuota>()),
      m_complaints(boost::make_shared<Complaints>(m_context.application->Name()))
{
}

void ApplicationService::ConfigurationChanged()
{
    for (const auto& session : Sessions())
    {
        session->ConfigurationChanged();
    }
}

void ApplicationService::BrokerChanged()
{
    for (const auto& session : Sessions())
    {
        session->BrokerChanged();
    }
}

grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>* ApplicationService::Attach(
    grpc::CallbackServerContext* /*context*/)
{
    const auto session = boost::make_shared<AttachSession>(m_context, m_complaints);
    bool fits = false;
    {
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_sessions, [](const auto& known) { return known.expired(); });
        fits = m_sessions.size() < mostStreams;
        if (fits)
        {
            m_sessions.emplace_back(session);
        }
    }
    if (fits)
    {
        session->Start();
    }
    else
    {
        session->Refuse(
            {grpc::StatusCode::RESOURCE_EXHAUSTED,
             SFormat(
                 "%zu streams of this application are attached, which is the most: end some, or attach with fewer "
                 "instances",
                 mostStreams)});
    }
    return session.get();
}

grpc::ServerUnaryReactor* ApplicationService::Publish(
    grpc::CallbackServerContext* context, const grpc::ByteBuffer* request, grpc::ByteBuffer* response)
{
    const auto call = boost::make_shared<PublishCall>(m_quota);
    // The request belongs to this call alone and is not looked at again: its bytes are freed once they are parsed.
    call->Start(m_context.publisher, *context, const_cast<grpc::ByteBuffer&>(*request), *response);
    return call.get();
}

grpc::ServerUnaryReactor* ApplicationService::RequestConfiguration(
    grpc::CallbackServerContext* /*context*/, const grpc::ByteBuffer* request, grpc::ByteBuffer* response)
{
    const auto call = boost::make_shared<ConfigurationCall>();
    proto::RequestConfigurationRequest parsed;
    const std::string wrong = Parse(const_cast<grpc::ByteBuffer&>(*request), parsed);
    if (!wrong.empty())
    {
        call->Refuse({grpc::StatusCode::INVALID_ARGUMENT, wrong});
    }
    else if (!MayAskAgain())
    {
        call->Refuse(
            {grpc::StatusCode::RESOURCE_EXHAUSTED,
             "the application has asked less than a second ago: wait for the Configuration on its Attach streams"});
    }
    else
    {
        const std::string& application = m_context.application->Name();
        proto::RequestConfigurationResponse answer;
        ToProto(m_context.subscriptions.Status(application), *answer.mutable_configuration());
        call->Start(m_context.askForConfiguration, application, answer, *response);
    }
    return call.get();
}

bool ApplicationService::MayAskAgain()
{
    const std::lock_guard lock(m_mutex);
    const auto now = m_context.timers.Now();
    if (m_asked && now - *m_asked < requestInterval)
    {
        return false;
    }
    m_asked = now;
    return true;
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

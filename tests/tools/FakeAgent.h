#pragma once

#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <functional>
#include <memory>
#include <string>

namespace VtxQel
{

/** The agent's side of the applications' interface: a script of the test's plays every stream, on gRPC's threads. */
class FakeAgent : private qel::apps::v1::Applications::Service
{
  public:
    using Stream = grpc::ServerReaderWriter<qel::apps::v1::AttachResponse, qel::apps::v1::AttachRequest>;
    /** Gets the Hello that was read already; its result ends the stream. */
    using Script = std::function<grpc::Status(const qel::apps::v1::Hello& hello, Stream& stream)>;
    /** Its result is the answer to a message that is published. */
    using PublishScript = std::function<grpc::Status(const qel::apps::v1::PublishRequest& request)>;

    /** Its result is the answer to a request for a configuration; the response has what is in force. */
    using ConfigurationScript = std::function<grpc::Status(qel::apps::v1::Configuration& inForce)>;

    FakeAgent(
        const std::string& socket, Script script, PublishScript publishScript = {},
        ConfigurationScript configurationScript = {})
        : m_script(std::move(script)), m_publishScript(std::move(publishScript)),
          m_configurationScript(std::move(configurationScript))
    {
        grpc::ServerBuilder builder;
        builder.AddListeningPort("unix:" + socket, grpc::InsecureServerCredentials());
        builder.RegisterService(static_cast<Service*>(this));
        m_server = builder.BuildAndStart();
    }
    ~FakeAgent() override { m_server->Shutdown(std::chrono::system_clock::now()); }

    /** A response that welcomes the application "web" without a configuration. */
    static qel::apps::v1::AttachResponse Welcome()
    {
        qel::apps::v1::AttachResponse response;
        response.mutable_welcome()->set_application("web");
        response.mutable_welcome()->set_agent_version("fake");
        response.mutable_welcome()->mutable_configuration()->set_state(qel::apps::v1::Configuration::MISSING);
        return response;
    }

    /** A batch of deliveries with the ids from `first` to `last`, which are their bodies, too. */
    static qel::apps::v1::AttachResponse Batch(std::uint64_t first, std::uint64_t last)
    {
        qel::apps::v1::AttachResponse response;
        for (std::uint64_t id = first; id <= last; ++id)
        {
            qel::apps::v1::Delivery* delivery = response.mutable_deliveries()->add_deliveries();
            delivery->set_delivery_id(id);
            delivery->set_body(std::to_string(id));
        }
        return response;
    }

  private:
    grpc::Status Attach(grpc::ServerContext*, Stream* stream) override
    {
        qel::apps::v1::AttachRequest first;
        if (!stream->Read(&first) || !first.has_hello())
        {
            return {grpc::StatusCode::INVALID_ARGUMENT, "no Hello"};
        }
        return m_script(first.hello(), *stream);
    }

    grpc::Status Publish(
        grpc::ServerContext*, const qel::apps::v1::PublishRequest* request, qel::apps::v1::PublishResponse*) override
    {
        return m_publishScript(*request);
    }

    grpc::Status RequestConfiguration(
        grpc::ServerContext*, const qel::apps::v1::RequestConfigurationRequest*,
        qel::apps::v1::RequestConfigurationResponse* response) override
    {
        return m_configurationScript(*response->mutable_configuration());
    }

    const Script m_script;
    const PublishScript m_publishScript;
    const ConfigurationScript m_configurationScript;
    std::unique_ptr<grpc::Server> m_server;
};

} // namespace VtxQel

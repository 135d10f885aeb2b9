#pragma once

#include "apps/AttachSession.h"
#include "apps/PublishCall.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <vector>

namespace VtxQel
{

/** The interface with its requests and answers as bytes. */
using RawApplications = qel::apps::v1::Applications::WithRawCallbackMethod_Attach<
    qel::apps::v1::Applications::WithRawCallbackMethod_Publish<
        qel::apps::v1::Applications::WithRawCallbackMethod_RequestConfiguration<qel::apps::v1::Applications::Service>>>;

/** The Applications service of one application. gRPC calls it on its threads. */
class ApplicationService : public RawApplications
{
  public:
    explicit ApplicationService(ServiceContext context);

    /** Tells every attached instance the state of the configuration. Any thread may call. */
    void ConfigurationChanged();
    /** The same for the connection to the broker. */
    void BrokerChanged();

    grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>* Attach(grpc::CallbackServerContext* context) override;
    grpc::ServerUnaryReactor* Publish(
        grpc::CallbackServerContext* context, const grpc::ByteBuffer* request, grpc::ByteBuffer* response) override;
    grpc::ServerUnaryReactor* RequestConfiguration(
        grpc::CallbackServerContext* context, const grpc::ByteBuffer* request, grpc::ByteBuffer* response) override;

    static constexpr std::size_t mostStreams = 256;
    /** How long after a request for the configuration the next one may come. */
    static constexpr std::chrono::seconds requestInterval{1};

  private:
    std::vector<boost::shared_ptr<AttachSession>> Sessions();
    bool MayAskAgain();

    const ServiceContext m_context;
    const boost::shared_ptr<PublishQuota> m_quota;
    const boost::shared_ptr<Complaints> m_complaints;
    std::mutex m_mutex;
    /** Guarded by m_mutex; ended sessions are swept when one is added. */
    std::vector<boost::weak_ptr<AttachSession>> m_sessions;
    std::optional<Timers::Clock::time_point> m_asked;
};

} // namespace VtxQel

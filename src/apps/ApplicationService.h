#pragma once

#include "apps/AttachSession.h"
#include "apps/PublishCall.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <mutex>
#include <vector>

namespace VtxQel
{

/** The Applications service of one application. gRPC calls it on its threads. */
class ApplicationService : public qel::apps::v1::Applications::CallbackService
{
  public:
    explicit ApplicationService(ServiceContext context);

    /** Tells every attached instance the state of the configuration. Any thread may call. */
    void ConfigurationChanged();

    grpc::ServerBidiReactor<qel::apps::v1::AttachRequest, qel::apps::v1::AttachResponse>* Attach(
        grpc::CallbackServerContext* context) override;
    grpc::ServerUnaryReactor* Publish(
        grpc::CallbackServerContext* context, const qel::apps::v1::PublishRequest* request,
        qel::apps::v1::PublishResponse* response) override;

  private:
    std::vector<boost::shared_ptr<AttachSession>> Sessions();

    const ServiceContext m_context;
    const boost::shared_ptr<PublishQuota> m_quota;
    std::mutex m_mutex;
    /** Guarded by m_mutex; ended sessions are swept when one is added. */
    std::vector<boost::weak_ptr<AttachSession>> m_sessions;
};

} // namespace VtxQel

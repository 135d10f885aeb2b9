#pragma once

#include "common/Publisher.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>

#include <atomic>
#include <cstddef>
#include <string>

namespace VtxQel
{

/** How much one application has under way to the broker. Any thread may call. */
class PublishQuota
{
  public:
    /** `false`, and nothing is taken, when there is too much already. */
    bool TryTake(std::size_t bytes);
    void GiveBack(std::size_t bytes);

    static constexpr std::size_t mostCalls = 1000;
    static constexpr std::size_t mostBytes = 67108864;

  private:
    std::atomic<std::size_t> m_calls{0};
    std::atomic<std::size_t> m_bytes{0};
};

/** gRPC's status for what became of a message. */
grpc::Status StatusOf(PublishResult result, const std::string& why);

/**
 * PublishCall is one Publish call: it is answered when the publisher has reported, or at once when the caller has gone
 * away or the server shuts down. It keeps itself alive until gRPC is done with it and the publisher has reported.
 */
class PublishCall : public grpc::ServerUnaryReactor, public boost::enable_shared_from_this<PublishCall>
{
  public:
    explicit PublishCall(boost::shared_ptr<PublishQuota> quota);
    ~PublishCall() override;
    PublishCall(const PublishCall&) = delete;
    PublishCall& operator=(const PublishCall&) = delete;

    /** Checks and publishes the request, whose body is moved out. Call once, when a shared pointer owns the call. */
    void Start(
        Publisher& publisher, const grpc::CallbackServerContext& context, qel::apps::v1::PublishRequest& request);

    void OnCancel() override;
    void OnDone() override;

  private:
    void FinishOnce(const grpc::Status& status);

    const boost::shared_ptr<PublishQuota> m_quota;
    /** What was taken from the quota; given back with the call. */
    std::size_t m_bytes = 0;
    bool m_taken = false;
    std::atomic<bool> m_finished{false};
    boost::shared_ptr<PublishCall> m_self;
};

} // namespace VtxQel

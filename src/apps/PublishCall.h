#pragma once

#include "apps/UnaryCall.h"
#include "common/Publisher.h"

#include <boost/shared_ptr.hpp>
#include <grpcpp/support/byte_buffer.h>

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
 * away or the server shuts down. What it has taken from the quota it keeps until the publisher has reported.
 */
class PublishCall : public UnaryCall
{
  public:
    explicit PublishCall(boost::shared_ptr<PublishQuota> quota);
    ~PublishCall() override;
    PublishCall(const PublishCall&) = delete;
    PublishCall& operator=(const PublishCall&) = delete;

    /** Parses, checks and publishes the request, which is used up. Call once, when a shared pointer owns the call. */
    void Start(
        Publisher& publisher, const grpc::CallbackServerContext& context, grpc::ByteBuffer& request,
        grpc::ByteBuffer& response);

  private:
    const boost::shared_ptr<PublishQuota> m_quota;
    /** What was taken from the quota; given back with the call. */
    std::size_t m_bytes = 0;
    bool m_taken = false;
};

} // namespace VtxQel

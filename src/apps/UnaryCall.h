#pragma once

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <grpcpp/support/server_callback.h>

#include <atomic>

namespace VtxQel
{

/**
 * UnaryCall is a call with one answer, which is given once: by whoever is first of the one who was asked to do it, a
 * caller who goes away and a server that shuts down. It keeps itself alive until gRPC is done with it. Any thread.
 */
class UnaryCall : public grpc::ServerUnaryReactor, public boost::enable_shared_from_this<UnaryCall>
{
  public:
    void OnCancel() override;
    void OnDone() override;

  protected:
    /** Call first, once a shared pointer owns the call. */
    void Begin();
    void FinishOnce(const grpc::Status& status);

  private:
    std::atomic<bool> m_finished{false};
    boost::shared_ptr<UnaryCall> m_self;
};

} // namespace VtxQel

#include "apps/UnaryCall.h"

#include <utility>

namespace VtxQel
{

void UnaryCall::OnCancel()
{
    FinishOnce({grpc::StatusCode::CANCELLED, "the call was cancelled"});
}

void UnaryCall::OnDone()
{
    const boost::shared_ptr<UnaryCall> last = std::move(m_self);
}

void UnaryCall::Begin()
{
    m_self = shared_from_this();
}

void UnaryCall::FinishOnce(const grpc::Status& status)
{
    if (!m_finished.exchange(true))
    {
        Finish(status);
    }
}

} // namespace VtxQel

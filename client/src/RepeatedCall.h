#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>

namespace qel
{

/** One attempt; the context has its deadline already. */
using Attempt = std::function<grpc::Status(grpc::ClientContext& context)>;

/**
 * Calls the agent again and again until it has answered for good or the deadline is over.
 * @return OK, or the last status: IsFinal() tells whether repeating it could have helped.
 */
grpc::Status CallRepeatedly(const Attempt& attempt, std::chrono::milliseconds deadline);

/** Whether the same request would be refused again. */
bool IsFinal(grpc::StatusCode code);

} // namespace qel

#pragma once

#include "broker/RpcChannel.h"
#include "broker/TopologyRequest.h"

#include <functional>
#include <memory>

namespace VtxQel
{

/**
 * What a request asks of the broker, for a request that one method carries out: all but consuming and stopping to.
 * @param done hears the answer
 */
Rpc ToRpc(const std::shared_ptr<const TopologyRequest>& request, std::function<void(const RpcReply& reply)> done);

} // namespace VtxQel

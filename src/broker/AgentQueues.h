#pragma once

#include "broker/BrokerSettings.h"

#include <cstdint>
#include <string>

namespace VtxQel
{

/** The client queue or the priority queue, as the agent declares and consumes it. */
QueueSpec OwnQueue(const BrokerSettings& settings, const std::string& name);

/** A queue that copies are published to: the dead-letter queue or a parking queue. */
QueueSpec CopiesQueue(const BrokerSettings& settings, const std::string& name);

/** A queue of which one consumer at a time is served, such as a parking queue; prefetch 0 does not consume it. */
QueueSpec SingleConsumerQueue(const BrokerSettings& settings, const std::string& name, std::uint16_t prefetch);

/** Any other queue that the agent declares; prefetch 0 does not consume it. */
QueueSpec PlainQueue(const BrokerSettings& settings, const std::string& name, std::uint16_t prefetch);

} // namespace VtxQel

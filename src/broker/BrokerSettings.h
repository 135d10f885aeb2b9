#pragma once

#include "broker/BrokerLink.h"
#include "broker/LoopProbe.h"
#include "common/RmqInfo.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace VtxQel
{

/** What the broker client is told once. */
struct BrokerSettings
{
    LinkSettings link;
    RmqInfo names;
    /** Only check that the exchange exists, do not declare it. */
    bool exchangePassive = false;
    /** "quorum" or "classic": the type of every queue that the agent declares. */
    std::string queueType = "quorum";
    /** Unsettled messages that the broker may send ahead, for each queue. */
    std::uint16_t prefetch = 1000;
    /** While more bytes than this are held, nothing more is read from the broker. */
    std::size_t maxHeldBytes = 67108864;
    /** The broker users whose control messages are obeyed; everybody's when empty. */
    std::vector<std::string> controlUsers;
    LoopProbeSettings loopProbe;
};

} // namespace VtxQel

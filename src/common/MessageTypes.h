#pragma once

#include <string_view>

namespace VtxQel
{

/** The AMQP `type` of the messages that the management plane and the agent exchange. */
constexpr std::string_view PING_REQUEST_TYPE = "com.brelix.vtx.messaging.ping.PingRequest";
constexpr std::string_view PING_REPLY_TYPE = "com.brelix.vtx.messaging.ping.PingReply";
constexpr std::string_view REASSIGN_HINT_TYPE = "com.brelix.vtx.messaging.discovery.ReassignHint";
constexpr std::string_view APP_INIT_CONFIG_TYPE = "com.brelix.vtx.messaging.appinit.AppInitConfigMsg";
constexpr std::string_view APP_INIT_REQUEST_TYPE = "com.brelix.vtx.messaging.appinit.AppInitRequestMsg";
/** What the agent sends to its own queue to see that it consumes it. */
constexpr std::string_view LOOP_PROBE_TYPE = "com.brelix.vtx.messaging.qel.LoopProbe";

/** Whether the agent itself acts on messages of this type; all others are for applications. */
constexpr bool IsControlType(std::string_view type)
{
    return type == PING_REQUEST_TYPE || type == REASSIGN_HINT_TYPE || type == APP_INIT_CONFIG_TYPE;
}

} // namespace VtxQel

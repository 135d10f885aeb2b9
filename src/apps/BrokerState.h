#pragma once

namespace VtxQel
{

/** The agent's connection to the broker, as applications are told. */
enum class BrokerState
{
    disconnected,
    connected,
    /** Connected, but the broker takes no messages. */
    blocked
};

} // namespace VtxQel

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qel
{

/** What the management plane has configured for the application. */
struct Configuration
{
    enum class State
    {
        /** None has arrived since the agent started. */
        missing,
        /** One is being carried out; the lists are those of the one before. */
        applying,
        applied,
        /** The last one failed: there are no topics. The agent asks for another. */
        failed
    };

    State state = State::missing;
    /** With failed: why. */
    std::string error;
    std::vector<std::string> topics;
    std::vector<std::string> queues;
    /** The lists were too long and end early. */
    bool incomplete = false;

    bool operator==(const Configuration&) const = default;
};

/** The agent's connection to the broker. */
enum class BrokerState
{
    /** Nothing is delivered; verdicts are given in vain: what is in hand comes again. Publish() waits. */
    disconnected,
    connected,
    /** Messages are delivered, but the broker takes none: Publish() waits. */
    blocked
};

/** What the agent says when an instance has attached. */
struct Welcome
{
    /** The application's name, as its drop-in has it. */
    std::string application;
    std::string agentVersion;
    /** How many messages may be without a verdict at once: what Options::window asked for, or less. */
    std::uint32_t window = 0;
    /** By what order is kept over several instances: "routing_key", "header:NAME", or empty for not at all. */
    std::string orderingKey;
    Configuration configuration;
    BrokerState broker = BrokerState::disconnected;
};

/** How it ended that we were attached, or the attempt. */
struct Detachment
{
    bool wasWelcomed = false;
    /** gRPC's code; 0: the stream ended in order. */
    int status = 0;
    std::string why;
};

} // namespace qel

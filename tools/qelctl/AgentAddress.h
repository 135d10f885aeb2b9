#pragma once

#include "ManagementSession.h"

#include <string>

namespace CLI
{
class App;
}

namespace VtxQel
{

/** Which agent a verb is for: the argument AGENT and the queue that this agent consumes. */
struct AgentAddress
{
    std::string id;
    std::string clientQueue;

    /** Adds AGENT and --client-queue to the verb; they land in this object, which must outlive it. */
    void Register(CLI::App& verb);

    /** The agent's client queue. */
    std::string Queue() const;

    /**
     * Sends a message to the agent and returns when the broker has put it in the agent's queue.
     * @throws Failure when there is no such queue or the broker does not take the message.
     */
    void Send(ManagementSession& session, OutgoingMessage message) const;
};

} // namespace VtxQel

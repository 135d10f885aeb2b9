#include "AgentAddress.h"

#include "Failure.h"

#include <CLI/CLI.hpp>

#include <utility>

namespace VtxQel
{

void AgentAddress::Register(CLI::App& verb)
{
    verb.add_option("agent", id, "The agent's id")->required()->type_name("AGENT");
    verb.add_option("--client-queue", clientQueue, "The agent's client queue (default qel.client.AGENT)")
        ->type_name("QUEUE");
}

std::string AgentAddress::Queue() const
{
    return clientQueue.empty() ? "qel.client." + id : clientQueue;
}

void AgentAddress::Send(ManagementSession& session, OutgoingMessage message) const
{
    message.routingKey = Queue();
    message.mandatory = true;
    // Agents may take control messages from listed users only.
    message.properties.userId = session.User();
    const PublishOutcome outcome = session.Publish(std::move(message));
    switch (outcome.result)
    {
    case PublishResult::confirmed:
        return;
    case PublishResult::noRoute:
        throw Failure(
            "the broker has no queue " + Queue() + ", so no agent " + id +
            " has ever been connected to it: check the id, the broker's URL and virtual host, or name the agent's "
            "queue "
            "with --client-queue");
    case PublishResult::refused:
        throw Failure("the broker refuses the message for " + Queue() + ": " + outcome.why);
    case PublishResult::timedOut:
    case PublishResult::notSent:
    case PublishResult::overloaded:
        break;
    }
    throw Failure(
        "the broker has not confirmed the message for " + Queue() + " within " + InSeconds(session.Timeout()) + ": " +
        outcome.why + ": it may be delivered all the same");
}

} // namespace VtxQel

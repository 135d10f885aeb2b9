#pragma once

#include <string>

namespace VtxQel
{

/**
 * The broker client as the message handler uses it.
 *
 * Every operation is synchronous and may be called from any thread but the client's own. `false` is a refusal by the
 * broker; implementations may throw RmqConnectionException where no answer could be had, except from UnbindTopic.
 */
class RmqClient
{
  public:
    virtual ~RmqClient() = default;

    /** Stops consuming the queue and keeps the queue. */
    virtual bool CancelQueue(const std::string& queue) = 0;
    /** Declares the queue and consumes from it. */
    virtual bool DeclareQueue(const std::string& queue) = 0;
    /** Answers a ping: the reply goes to `exchange` with `replyTo` as its routing key and carries `correlationId`. */
    virtual bool SendPingReply(
        const std::string& exchange, const std::string& replyTo, const std::string& correlationId) = 0;
    /** Binds the topic on `exchange` to `queue`. */
    virtual bool BindTopic(const std::string& queue, const std::string& exchange, const std::string& topic) = 0;
    /** Unbinds the topic on `exchange` from `clientQueue`; never throws. */
    virtual bool UnbindTopic(const std::string& clientQueue, const std::string& exchange, const std::string& topic) = 0;
};

} // namespace VtxQel

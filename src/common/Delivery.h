#pragma once

#include "common/RmqMessage.h"

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

namespace VtxQel
{

/**
 * One receiver's outstanding answer for a delivery.
 *
 * Exactly one operation is called, once; further calls have no effect. A receipt destroyed unanswered leaves its
 * delivery with the broker, which delivers it again after the connection has ended: that is how a stop gives back what
 * it could not finish. Every operation may be called from any thread and only enqueues work; none blocks or throws.
 */
class Receipt
{
  public:
    virtual ~Receipt() = default;

    /** The receiver has taken the message. */
    virtual void Done() = 0;
    /** The receiver will never take the message: it goes to the dead-letter queue with this reason and this count. */
    virtual void Dead(const std::string& reason, std::uint32_t tries) = 0;
    /** The receiver cannot take the message now: it moves to the receiver's own parking queue on the broker. */
    virtual void Park(std::uint32_t tries) = 0;
};

/**
 * A message that the broker has handed to us and that must be settled exactly once.
 *
 * The broker forgets it when every receipt that was given out by Expect() is answered and the lane that carried it has
 * returned from the handler. Immutable but for the receipts, which lock for themselves.
 */
class Delivery : public RmqMessage
{
  public:
    /** The exchange it was published to. */
    virtual const std::string& GetExchange() const = 0;
    /** The routing key it was published with. */
    virtual const std::string& GetRoutingKey() const = 0;
    /** The queue that we consumed it from. */
    virtual const std::string& GetQueue() const = 0;
    /** Whether the broker has delivered it before. */
    virtual bool IsRedelivered() const = 0;
    /** How many times it was given to a receiver before this delivery, as far as the broker or our header tells. */
    virtual std::uint32_t GetTries() const = 0;
    /** The memory that it takes while it is held: its body and its headers. */
    virtual std::size_t GetFootprint() const = 0;
    /** The application it was parked for, when it comes from that application's parking queue; else empty. */
    virtual const std::string& GetParkedFor() const = 0;
    /** Whether it can still be settled: the connection that it came by lives. Else the broker delivers it again. */
    virtual bool IsCurrent() const = 0;

    /**
     * Adds a receiver whose answer settlement waits for. Call it before the handler's Callback returns or while another
     * receipt of this delivery is unanswered.
     * @param application the receiver's name, which goes into the dead letter and names the parking queue.
     */
    virtual boost::shared_ptr<Receipt> Expect(const std::string& application) = 0;
};

} // namespace VtxQel

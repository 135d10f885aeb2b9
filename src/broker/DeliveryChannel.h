#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BrokerLink.h"
#include "broker/DeliverySource.h"
#include "broker/RpcChannel.h"
#include "broker/UnsettledTags.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * DeliveryChannel consumes one queue on a channel of its own and settles what came from it.
 *
 * It ends in one of two ways: Cancel() stops consuming and the channel stays until everything delivered is settled and
 * CloseIfDrained() closes it (later: a quorum queue forgets acknowledgements that it has not worked off when their
 * channel ends), Release() closes it at once so that the broker puts everything unsettled back in its order. After
 * either, or when the broker cancels the consumer or closes the channel, it is of no use for consuming again: make
 * another one. Lives on the I/O thread, at most as long as its connection.
 */
class DeliveryChannel
{
  public:
    using Done = std::function<void(const RpcReply& reply)>;

    enum class State
    {
        starting,
        consuming,
        cancelling,
        /** Not consuming any more; deliveries are still to be settled. */
        draining,
        /** Nothing is to be settled any more. */
        drained,
        closing,
        closed
    };

    /** Opens the channel and consumes. */
    DeliveryChannel(
        AmqpConnection& connection, std::uint16_t channel, std::uint64_t generation, const QueueSpec& queue);

    const std::string& Queue() const { return m_queue; }
    /** Over when what came by the channel and is unsettled is with the broker again. */
    std::shared_ptr<const DeliverySource> Source() const { return m_source; }
    void EndDeliveries() { m_source->End(); }
    std::uint64_t Generation() const { return m_generation; }
    State GetState() const { return m_state; }
    std::size_t Unsettled() const { return m_tags.Unsettled(); }

    /** Adds somebody who wants to hear how the start went; at once when it is over. */
    void WhenStarted(Done done);
    /** Whoever waits for the start hears that there is none. */
    void ForgetStart(const std::string& why) { Tell(m_started, {false, 0, why, 0}); }
    void Cancel(Done done);
    void Release(Done done);

    /** Notes the delivery. @return whether it is for the application; not when the channel is being closed. */
    bool Accept(std::uint64_t tag);
    void Settle(std::uint64_t tag, SettleAs as) { m_tags.Settle(tag, as); }
    /** Whether so much is settled and not told that the broker may have stopped sending. */
    bool IsStarving() const { return 2 * m_tags.News() >= m_prefetch; }
    /** Sends the settlements. */
    void Flush();
    /** Closes the channel when it was drained at that time. */
    void CloseIfDrained(std::chrono::steady_clock::time_point since);

    /** @return what the broker did on its own: `consumerCancelled` asks for another channel. */
    enum class Event
    {
        none,
        consumerCancelled,
        /** The broker closed the channel; what was unsettled is with the broker again. */
        channelClosed
    };
    Event OnMethod(const amqp_method_t& method);
    /** The text of the broker's channel.close. */
    const RpcReply& CloseReason() const { return m_closeReason; }
    /** The connection ended. */
    void Fail(const std::string& why);

  private:
    void Close();
    void Drain();
    static void Tell(std::vector<Done>& all, const RpcReply& reply);

    AmqpConnection& m_connection;
    std::uint16_t m_channel;
    std::uint64_t m_generation;
    std::string m_queue;
    std::string m_consumerTag;
    std::size_t m_prefetch;
    const std::shared_ptr<DeliverySource> m_source = std::make_shared<DeliverySource>();
    State m_state = State::starting;
    UnsettledTags m_tags;
    std::vector<Done> m_started;
    std::vector<Done> m_stopped;
    RpcReply m_closeReason;
    std::chrono::steady_clock::time_point m_drainedAt;
};

} // namespace VtxQel

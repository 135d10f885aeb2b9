#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BrokerLink.h"
#include "broker/DeliveryChannel.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace VtxQel
{

/**
 * Consumers are the delivery channels of one connection: at most one that consumes for each queue, and those of
 * cancelled consumers whose deliveries are still to be settled. Lives on the I/O thread, at most as long as its
 * connection.
 */
class Consumers
{
  public:
    using Done = DeliveryChannel::Done;
    /** A consumer ended though nobody asked for it. @param deleted whether its queue is gone, with its bindings. */
    using OnLost = std::function<void(const std::string& queue, bool deleted, const std::string& why)>;

    /** What consumers need to know besides their connection. */
    struct Context
    {
        LinkListener& listener;
        /** Counts channels over all connections. */
        std::uint64_t& generation;
        OnLost onLost;
    };

    /** The numbers of the channels that may be opened; none when the last is smaller than the first. */
    struct Channels
    {
        std::uint16_t first;
        std::uint16_t last;
    };

    Consumers(AmqpConnection& connection, const Channels& channels, Context context);

    /** Consumes the queue, or joins the consumer that there is already. */
    void Start(const QueueSpec& queue, Done done);
    void Cancel(const std::string& queue, Done done);
    void Release(const std::string& queue, Done done);
    /** @param done told when nothing is delivered any more */
    void CancelAll(std::function<void()> done);
    /** The queues whose consumption the broker has not answered yet. */
    std::vector<std::string> Starting() const;
    /** The generation of the queue's channel as long as the broker has not answered for it, else 0. */
    std::uint64_t StartingAs(const std::string& queue) const;

    /** @return whether the channel that delivered it is one of these */
    bool Settle(const DeliveryTag& tag, SettleAs as);
    /** Whether a channel waits for its settlements to be sent. */
    bool IsStarving() const;
    /** Sends all settlements. */
    void Flush();
    /** Whether a cancelled consumer's channel has nothing to settle any more. */
    bool HasDrained() const;
    /** Whether all have been cancelled and have nothing to settle any more. */
    bool IsDrained() const;
    /** Closes the channels that were drained at that time. */
    void CloseDrained(std::chrono::steady_clock::time_point since);

    /** @throws RmqConnectionException for a channel that is not known */
    void OnMethod(std::uint16_t channel, const amqp_method_t& method);
    void OnContent(std::uint16_t channel, AmqpContent&& content);
    /** Whether one of these channels has delivered it. */
    bool HasDelivered(const DeliveryTag& tag) const { return m_byGeneration.count(tag.generation) > 0; }
    /** What is unsettled is as good as with the broker. */
    void EndDeliveries();
    /** How many deliveries have not been settled. */
    std::size_t Unsettled() const;
    /** Whoever waits for a consumer to start hears that it does not. */
    void ForgetStarts(const std::string& why);
    /** The connection ended. */
    void Fail(const std::string& why);

  private:
    DeliveryChannel& At(std::uint16_t channel);
    std::uint16_t FreeChannel();
    void Forget(std::uint16_t channel);
    void ForgetQueue(const DeliveryChannel& channel);

    AmqpConnection& m_connection;
    std::uint16_t m_nextChannel;
    const std::uint16_t m_lastChannel;
    const Context m_context;
    std::set<std::uint16_t> m_freeChannels;
    /** Of these the ones that the broker has closed: what it had sent on them before may still come. */
    std::set<std::uint16_t> m_closedByBroker;
    std::unordered_map<std::uint16_t, std::unique_ptr<DeliveryChannel>> m_channels;
    /** Those that consume or are about to. */
    std::map<std::string, DeliveryChannel*> m_byQueue;
    std::unordered_map<std::uint64_t, DeliveryChannel*> m_byGeneration;
    /** Where the last settlement went: the next one most often goes there too. */
    DeliveryChannel* m_lastSettled = nullptr;
    std::set<DeliveryChannel*> m_toFlush;
};

} // namespace VtxQel

#pragma once

#include "DeadLetter.h"
#include "GlobalOptions.h"
#include "broker/BrokerLink.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <string>

namespace VtxQel
{

/** A message of the dead-letter queue as it lies there. */
struct DeadLetterAt
{
    /** Its place in the queue when the session was opened, from 1. */
    std::uint32_t number = 0;
    IncomingMessage message;
    /** Why it cannot be read; nothing but the number is known of it then. */
    std::string unreadable;
};

/** Whether the filter lets it pass; what cannot be read passes only where everything does. */
bool Selects(const DeadLetterFilter& filter, const DeadLetterAt& letter);

/**
 * DeadLetterSession walks once through what was in a dead-letter queue when it was opened, in the queue's order, and
 * leaves everything there that is not removed.
 *
 * Nothing is held but what the broker has sent ahead, within a bound. Open(), Next() and Close() are for one thread,
 * Keep(), Remove(), Publish() and Interrupt() for any; the link's I/O thread fills the inbox, under m_mutex. What goes
 * wrong with the broker is thrown as Failure; every message that was not removed is in the queue then.
 */
class DeadLetterSession : private LinkListener
{
  public:
    DeadLetterSession(const GlobalOptions& options, const std::string& purpose, const std::string& queue);
    ~DeadLetterSession() override;
    DeadLetterSession(const DeadLetterSession&) = delete;
    DeadLetterSession& operator=(const DeadLetterSession&) = delete;

    /**
     * Connects and counts.
     * @param atMost the walk ends after so many messages.
     * @throws Failure when there is no such queue.
     */
    void Open(std::uint32_t atMost = std::numeric_limits<std::uint32_t>::max());
    /** How many messages were there when the session was opened, without those that others hold. */
    std::uint32_t Count() const { return m_count; }
    /** How many others consumed the queue then. */
    std::uint32_t OtherConsumers() const { return m_otherConsumers; }

    /** The next message; nothing when the walk has ended, before its time when there is a Shortfall(). */
    std::optional<DeadLetterAt> Next();
    /** Why the walk ended before its time; empty when it did not. */
    const std::string& Shortfall() const { return m_shortfall; }

    /** A message given out stays in the queue; to be told of each that is not removed. */
    void Keep() { ++m_kept; }
    /** Removes a message from the queue. */
    void Remove(const DeliveryTag& tag);
    /** Publishes without waiting; the completion runs on the link's thread. */
    void Publish(OutgoingMessage message, PublishCompletion completion);

    /** Has Next() come to its end. */
    void Interrupt();
    /** Gives everything that was not removed back to the broker and waits until it is in the queue again. */
    void Close();

  private:
    DesiredTopology OnConnected() override { return {}; }
    void OnRestored() override;
    void OnRestoreFailed(const std::string&, const RequestResult&) override {}
    void OnDisconnected(const std::string& why) override;
    void OnConsumerCancelled(const std::string& queue) override;
    void OnDelivery(IncomingMessage&& message) override;
    void OnRefusedDelivery(IncomingMessage&& message, const std::string& why) override;
    void OnGaveUp(const std::string& why) override;
    void OnLoginRefused(const std::string& why) override;

    QueueCounts CountQueue();
    void Consume();
    std::optional<DeadLetterAt> Take();
    bool IsWorthWaiting(std::chrono::steady_clock::time_point since);
    void Push(IncomingMessage&& message, const std::string& unreadable);
    void Fail(const std::string& why);

    const std::chrono::milliseconds m_timeout;
    const std::string m_queue;
    // Of the thread that walks.
    std::uint32_t m_count = 0;
    std::uint32_t m_otherConsumers = 0;
    std::uint32_t m_end = 0;
    std::uint32_t m_seen = 0;
    bool m_consuming = false;
    std::string m_shortfall;

    std::atomic<std::uint32_t> m_kept{0};
    std::atomic<std::uint32_t> m_removed{0};

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    bool m_connected = false;
    bool m_interrupted = false;
    bool m_paused = false;
    std::string m_failure;
    std::deque<DeadLetterAt> m_inbox;
    std::size_t m_inboxBytes = 0;

    // The last member: its thread calls the operations above until it is gone.
    BrokerLink m_link;
};

} // namespace VtxQel

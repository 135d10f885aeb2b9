#pragma once

#include "broker/CertificateExpiry.h"
#include "broker/DeliverySource.h"
#include "broker/EndCause.h"
#include "broker/TlsFiles.h"
#include "common/Publisher.h"
#include "common/RmqMessage.h"
#include "common/RmqTable.h"

#include <boost/shared_ptr.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

/** How the link reaches the broker. */
struct LinkSettings
{
    /** AMQP URLs (amqp:// or amqps://, RabbitMQ URI specification), tried in turn; at least one. */
    std::vector<std::string> urls;
    /** Replace what the URLs say, when not empty. The password is never logged. */
    std::string user;
    std::string password;
    TlsFiles tls;
    /** Shown by the broker's tools as the connection's name. */
    std::string connectionName;
    /** 0 asks the broker for no heartbeats. */
    std::chrono::seconds heartbeat{10};
    /** Bodies above this many bytes are refused as they arrive. */
    std::size_t maxBodyBytes = 134217728;
    /** How much may wait to be published or confirmed before Publish answers `overloaded`. */
    std::size_t maxUnconfirmed = 10000;
    std::size_t maxUnconfirmedBytes = 67108864;
    /** Give up (Listener::OnGaveUp) when the first connection cannot be made in this time; 0 tries for ever. */
    std::chrono::milliseconds firstConnectDeadline{0};
    /**
     * How long the broker may take to answer for a queue: longer than a quorum queue needs to elect its leader, shorter
     * than the broker takes to end the connection because of a queue without one (65 s).
     */
    std::chrono::milliseconds queuePatience{15000};
    /**
     * How long it may be silent about exchanges and own queues, without which nothing works, before another connection
     * is tried for a first and a second time. Not before everything was ready once in this process: until then the
     * queues may have to be made, and queuePatience alone holds.
     */
    std::chrono::milliseconds ownQueuePatience{2500};
    /** How long the connection that was left in a move may live for its deliveries to be settled. */
    std::chrono::milliseconds drainPatience{20000};
};

/** An exchange to declare. */
struct ExchangeSpec
{
    std::string name;
    std::string type;
    /** Only check that it exists. */
    bool passive = false;
};

/** A queue to declare and, unless prefetch is 0, to consume from, each consumer on a channel of its own. */
struct QueueSpec
{
    std::string name;
    bool durable = true;
    bool exclusive = false;
    bool autoDelete = false;
    bool passive = false;
    RmqTable arguments;
    /** Unsettled messages the broker may send ahead; 0 declares without consuming. */
    std::uint16_t prefetch = 0;

    bool operator==(const QueueSpec&) const = default;
};

/** A topic (routing key) bound on an exchange to a queue. */
struct Binding
{
    std::string queue;
    std::string exchange;
    std::string topic;

    // NOLINTNEXTLINE(modernize-use-nullptr): a false alarm of clang-tidy 14 about the comparison with zero
    auto operator<=>(const Binding&) const = default;
};

/** Everything that has to exist on the broker, in the order in which it is restored after a (re)connect. */
struct DesiredTopology
{
    std::vector<ExchangeSpec> exchanges;
    /** The agent's own queues: restored before the bindings. */
    std::vector<QueueSpec> ownQueues;
    std::vector<Binding> bindings;
    /** The applications' queues: restored after the bindings. */
    std::vector<QueueSpec> applicationQueues;
};

/** How a request to the broker ended. */
enum class Answer
{
    ok,
    /** The broker refuses it for good, or the name could never be sent. */
    refused,
    /** No answer could be had within the deadline, reconnects included. */
    unanswered
};

/** The answer with the AMQP reply code (0 when it did not come from the broker) and a text for logs. */
struct RequestResult
{
    Answer answer = Answer::unanswered;
    std::uint16_t code = 0;
    std::string text;
};

/**
 * Which delivery is meant when settling: valid only on the channel that delivered it and only while that channel
 * lives. A settlement whose generation is over is dropped: the broker delivers the message again by itself.
 */
struct DeliveryTag
{
    /** Counts the openings of delivery channels over the link's life; never used twice. */
    std::uint64_t generation = 0;
    /** The AMQP delivery tag. */
    std::uint64_t tag = 0;
};

/** A message as it came from the broker. */
struct IncomingMessage
{
    DeliveryTag tag;
    /** The channel it came by. */
    std::shared_ptr<const DeliverySource> source;
    std::string queue;
    std::string exchange;
    std::string routingKey;
    bool redelivered = false;
    boost::shared_ptr<RmqProperties> properties;
    std::string body;
};

/** What a queue has at one moment. */
struct QueueCounts
{
    /** Messages that no consumer holds. */
    std::uint32_t ready = 0;
    std::uint32_t consumers = 0;
};

/** How settling one delivery is told to the broker. */
enum class SettleAs
{
    ack,
    /** basic.reject without requeue: the queue's own dead-letter exchange takes it. */
    reject,
    /** basic.reject with requeue: back to the queue at once. */
    requeue
};

/** The connection as an operator wants to see it. Copied out under a lock. */
struct LinkStatus
{
    bool connected = false;
    /** Connected and the desired topology restored. */
    bool restored = false;
    /** The publishing connection is blocked by a broker alarm. */
    bool blocked = false;
    /** The URL in use (or tried), without user and password. */
    std::string url;
    std::size_t urlIndex = 0;
    /** Since when it is connected. */
    std::chrono::steady_clock::time_point connectedAt;
    /** Connections made again, by what ended the one before (EndCause), and together. */
    std::array<std::uint64_t, END_CAUSE_COUNT> reconnectsBy{};
    std::uint64_t reconnects = 0;
    std::string lastError;
    /** Moves to another front end that were asked for and carried out or given up, and why the last one was. */
    std::uint64_t moves = 0;
    std::uint64_t failedMoves = 0;
    std::string lastMoveError;
    /** Of TLS connections: when what they use expires. */
    CertificateExpiry certificates;
};

/**
 * The link's user. Every operation is called on the I/O thread and must not block; a listener outlives the link.
 */
class LinkListener
{
  public:
    virtual ~LinkListener() = default;

    /**
     * What has to exist, asked for on every connection that was just opened, now and then while a move is prepared, and
     * when somebody deleted a queue of ours, whose bindings went with it.
     */
    virtual DesiredTopology OnConnected() = 0;
    /**
     * Everything of the desired topology is in place but for what was refused; deliveries may have come before. Told
     * again after a deleted queue and its bindings were made again.
     */
    virtual void OnRestored() = 0;
    /**
     * One item could not be restored. It is tried again with back-off, unless it is a binding or an application's queue
     * that the broker refuses.
     */
    virtual void OnRestoreFailed(const std::string& what, const RequestResult& result) = 0;
    /** The connection ended; everything that came by it comes again. */
    virtual void OnDisconnected(const std::string& why) = 0;
    /**
     * From now on we are connected to another front end, as somebody asked with MoveTo(). OnRestored() follows when it
     * is consumed from; what the one before had delivered can still be settled.
     */
    virtual void OnMoved() {}
    /** The connection to the front end before is closed. @param unsettled deliveries of it that come again there */
    virtual void OnLeft(std::size_t /*unsettled*/) {}
    /**
     * The broker cancelled our consumer (its queue was deleted) or closed its channel (deliveries that are not settled
     * come again); the queue is declared and consumed again with back-off.
     */
    virtual void OnConsumerCancelled(const std::string& queue) = 0;
    /** A delivery; move from it. */
    virtual void OnDelivery(IncomingMessage&& message) = 0;
    /**
     * A delivery whose properties cannot be decoded, which it comes without, or whose body is over the limit, which it
     * comes without as well. To be settled like any other.
     */
    virtual void OnRefusedDelivery(IncomingMessage&& message, const std::string& why) = 0;
    /** LinkSettings::firstConnectDeadline passed. */
    virtual void OnGaveUp(const std::string& why) = 0;
    /**
     * The broker refuses our user or virtual host. The next attempt most likely ends so, too, but is made all the same:
     * somebody may mend it meanwhile.
     */
    virtual void OnLoginRefused(const std::string&) {}
    /** The broker stops taking messages because of an alarm, or takes them again. Deliveries go on. */
    virtual void OnBlocked(bool) {}
};

/**
 * BrokerLink keeps the agent connected to RabbitMQ and is the only thing that talks to it.
 *
 * It owns one I/O thread and two AMQP connections: one consumes, settles and carries topology requests, the other is
 * opened at the first publish and publishes with confirms (a broker alarm stops the reading of a connection that has
 * published, so they must not be one). During a move there are some to both front ends. A lost connection is made
 * again, with full-jitter back-off, for ever, and the listener's desired topology restored on it.
 *
 * Every operation may be called from any thread; the synchronous requests from any but the I/O thread. Requests made
 * while disconnected wait for the connection within their deadline.
 */
class BrokerLink : public Publisher
{
  public:
    BrokerLink(LinkSettings settings, LinkListener& listener);
    /** Stops as Stop(0) does when still running. */
    ~BrokerLink() override;
    BrokerLink(const BrokerLink&) = delete;
    BrokerLink& operator=(const BrokerLink&) = delete;

    /** Starts the I/O thread and the first connection attempt. Call once. @throws QelException for a malformed URL. */
    void Start();

    /** Cancels every consumer; settlements and publishes go on. Does not wait. */
    void StopConsuming();

    /**
     * Flushes settlements and unconfirmed publishes for at most `budget`, closes both connections in order and joins
     * the I/O thread. Pending requests are answered `unanswered`, pending publishes `timedOut`. Idempotent.
     */
    void Stop(std::chrono::milliseconds budget);

    /**
     * Topology requests. `deadline` counts from the call and spans reconnects: idempotent requests are repeated.
     * Bindings are asked for in their order, none waits for the answer to another; @return the answers in that order.
     */
    std::vector<RequestResult> Bind(const std::vector<Binding>& bindings, std::chrono::milliseconds deadline);
    RequestResult Unbind(const Binding& binding, std::chrono::milliseconds deadline);
    RequestResult DeclareExchange(const ExchangeSpec& exchange, std::chrono::milliseconds deadline);
    /** Declares the queue and, when its prefetch is not 0, consumes from it; ok when both are. */
    RequestResult DeclareQueue(const QueueSpec& queue, std::chrono::milliseconds deadline);
    /** Stops consuming from the queue; ok also when it was not consumed. What is unsettled stays to be settled. */
    RequestResult CancelQueue(const std::string& queue, std::chrono::milliseconds deadline);
    /**
     * Stops consuming from the queue and gives everything unsettled from it back to the broker, which puts it back in
     * its original order; settlements of it are dropped from then on. Ok also when it was not consumed.
     */
    RequestResult ReleaseQueue(const std::string& queue, std::chrono::milliseconds deadline);
    /** How many messages and consumers the queue has (passive declare); written to `counts` when ok. */
    RequestResult CountMessages(const std::string& queue, std::chrono::milliseconds deadline, QueueCounts& counts);

    /** Settles one delivery; acks are collected and sent with `multiple` where they are contiguous. */
    void Settle(const DeliveryTag& tag, SettleAs as);

    void Publish(OutgoingMessage message, PublishCompletion completion) override;
    /** Publishes where the delivery came from, which is the front end before during the end of a move. */
    void PublishBack(const IncomingMessage& to, OutgoingMessage message, PublishCompletion completion);

    /**
     * Stops (or goes on) reading deliveries from the socket: the bound on memory when too many bytes are held. The last
     * call counts, from whichever thread.
     */
    void PauseReading(bool paused);

    /**
     * Moves to the URL of this index, make before break: connects and makes everything there, then stops consuming
     * here, consumes there, and closes the connection here when its deliveries are settled. When that cannot be done,
     * everything stays as it was. One move at a time; another one is not begun meanwhile. Does not wait.
     */
    void MoveTo(std::size_t urlIndex);

    /** Leaves the connection for a new one, because of what is said. Does not wait. */
    void Reconnect(const std::string& why);

    /**
     * Takes these TLS files, which may be the same with other contents, for connections made from now on. Every new
     * connection reads its files anew; this is for their names, and for those who want to hear at once.
     */
    void ReloadTls(const TlsFiles& files);

    /** Logs in with this password, in place of the one of the settings, on connections made from now on. */
    void UsePassword(const std::string& password);

    LinkStatus Status() const;

    /** Runs a short task on the I/O thread, as a proof that it gets on. Dropped when the link does not run. */
    void Post(std::function<void()> task);

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace VtxQel

#pragma once

#include "GlobalOptions.h"
#include "broker/BrokerLink.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace VtxQel
{

/** A message that came to the session's reply queue. */
struct Reply
{
    RmqProperties properties;
    std::string body;
    std::chrono::steady_clock::time_point arrival;
};

/** How a publish ended; `why` explains everything but `confirmed`. */
struct PublishOutcome
{
    PublishResult result = PublishResult::timedOut;
    std::string why;
};

/** What a session serves that stays until it is told to end. The functions run on the link's thread; none may block. */
struct RequestService
{
    /** Consumed and bound as long as the session lives. */
    DesiredTopology topology;
    /** What to do when the broker refuses that. */
    std::string cure;
    std::function<void(RmqProperties&& request)> onRequest;
    /** Something went wrong that the link mends by itself or tries again. */
    std::function<void(const std::string& why)> onTrouble;
    /** Everything is in place, for the first time or again. */
    std::function<void()> onRestored;
};

/**
 * ManagementSession talks to the broker as the management plane does: it publishes with confirms and waits for replies
 * on a queue of its own that vanishes with it.
 *
 * All operations are for one thread, the verb's; the link's I/O thread only fills the inbox, under m_mutex. Everything
 * that goes wrong with the broker itself is thrown as Failure with a line for the operator.
 */
class ManagementSession : private LinkListener
{
  public:
    /** @param purpose the verb, shown by the broker's tools in the connection's name. */
    ManagementSession(const GlobalOptions& options, const std::string& purpose);
    /** Closes the connections in order; what is unconfirmed is given up. */
    ~ManagementSession() override;
    ManagementSession(const ManagementSession&) = delete;
    ManagementSession& operator=(const ManagementSession&) = delete;

    /** Connects and, when `withReplies`, makes the reply queue and proves that a message gets there. */
    void Open(bool withReplies);
    /**
     * In place of Open(): connects, takes requests and stays connected, however often the broker goes away.
     * @throws Failure when it does not come about for the first time.
     */
    void Serve(RequestService service);

    /** Publishes and waits for the outcome. */
    PublishOutcome Publish(OutgoingMessage message);
    /** Publishes without waiting; the completion runs on the link's thread. */
    void PublishAsync(OutgoingMessage message, PublishCompletion completion);

    /** The first reply with this correlation id, or nothing when it has not come by then; others are discarded. */
    std::optional<Reply> WaitForReply(const std::string& correlationId, std::chrono::steady_clock::time_point deadline);

    const std::string& ReplyQueue() const { return m_replyQueue; }
    /** The user for messages whose receiver wants to know who sent them; the broker vouches for it. */
    const std::string& User() const { return m_user; }
    std::chrono::milliseconds Timeout() const { return m_timeout; }

  private:
    DesiredTopology OnConnected() override;
    void OnRestored() override;
    void OnRestoreFailed(const std::string& what, const RequestResult& result) override;
    void OnDisconnected(const std::string& why) override;
    void OnConsumerCancelled(const std::string& queue) override;
    void OnDelivery(IncomingMessage&& message) override;
    void OnRefusedDelivery(IncomingMessage&& message, const std::string& why) override;
    void OnGaveUp(const std::string& why) override;
    void OnLoginRefused(const std::string& why) override;

    void WaitUntilRestored();
    void ProveReplyQueue();
    void Fail(const std::string& why);
    bool TellTrouble(const std::string& why);

    // Constant after Open() or Serve().
    std::chrono::milliseconds m_timeout;
    std::string m_user;
    std::string m_replyQueue;
    bool m_withReplies = false;
    RequestService m_service;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    bool m_restored = false;
    std::string m_failure;
    std::string m_lastTrouble;
    std::deque<Reply> m_inbox;

    // The last member: its thread calls the operations above until it is gone.
    BrokerLink m_link;
};

/** An id that no other session has: 128 random bits in hexadecimal digits. */
std::string RandomId();

} // namespace VtxQel

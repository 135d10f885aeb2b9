#pragma once

#include "broker/BrokerLink.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{

/** How long a test waits for what has to happen; only a failing test waits that long. */
inline constexpr std::chrono::seconds PATIENCE{60};

/** The URL of the node that the launcher started for us. */
std::string NodeUrl();
/** The same node with another user, password, virtual host or scheme put in. */
std::string NodeUrl(const std::string& scheme, const std::string& userAndPassword, const std::string& vhost);
/** Runs rabbitmqctl with these arguments and returns what it printed; a test failure when it fails. */
std::string Rabbitmqctl(const std::string& arguments);
/** Another node of the cluster that the launcher started for us (--cluster). */
std::string OtherNodeUrl();
std::string OtherRabbitmqctl(const std::string& arguments);
/** A name that no other test uses. */
std::string Unique(const std::string& what);

/** Settings with everything filled in that a test does not care about. */
LinkSettings NodeSettings();
/** A durable queue, consumed with this prefetch. */
QueueSpec Queue(const std::string& name, std::uint16_t prefetch);

/** Keeps everything that a link tells, for a test to wait for. Every operation may be called from any thread. */
class RecordingListener : public LinkListener
{
  public:
    DesiredTopology OnConnected() override;
    void OnRestored() override;
    void OnRestoreFailed(const std::string& what, const RequestResult& result) override;
    void OnDisconnected(const std::string& why) override;
    void OnMoved() override;
    void OnLeft(std::size_t unsettled) override;
    void OnConsumerCancelled(const std::string& queue) override;
    void OnDelivery(IncomingMessage&& message) override;
    void OnRefusedDelivery(IncomingMessage&& message, const std::string& why) override;
    void OnGaveUp(const std::string& why) override;
    void OnLoginRefused(const std::string& why) override;

    void SetDesired(DesiredTopology desired);

    /** Wait for the n-th of its kind, counted from 1. */
    bool WaitForRestored(std::size_t count);
    bool WaitForDeliveries(std::size_t count);
    std::optional<std::string> WaitForDisconnect(std::size_t count);
    bool WaitForMoved(std::size_t count);
    /** How many deliveries were given back when the connection that was left was closed. */
    std::optional<std::size_t> WaitForLeft(std::size_t count);
    std::optional<std::string> WaitForCancelled();
    std::optional<std::pair<IncomingMessage, std::string>> WaitForRefused();
    std::optional<std::string> WaitForGaveUp();
    /** Waits for a refusal of the login whose reason holds this text. */
    bool WaitForLoginRefused(const std::string& text);
    std::optional<std::pair<std::string, RequestResult>> WaitForRestoreFailed(std::size_t count);

    std::vector<IncomingMessage> Deliveries() const;
    IncomingMessage Delivery(std::size_t index) const;
    std::size_t DeliveryCount() const;
    std::size_t RestoredCount() const;
    std::size_t DisconnectCount() const;

  private:
    bool WaitFor(const std::function<bool()>& condition) const;
    template <typename T>
    std::optional<T> WaitForNth(const std::vector<T>& list, std::size_t count) const
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, PATIENCE, [&] { return list.size() >= count; }))
        {
            return std::nullopt;
        }
        return list[count - 1];
    }
    template <typename Change>
    void Note(Change change)
    {
        const std::lock_guard lock(m_mutex);
        change();
        m_changed.notify_all();
    }

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    DesiredTopology m_desired;
    std::size_t m_restored = 0;
    std::vector<std::pair<std::string, RequestResult>> m_restoreFailed;
    std::vector<std::string> m_disconnects;
    std::size_t m_moved = 0;
    std::vector<std::size_t> m_left;
    std::vector<std::string> m_cancelled;
    std::vector<IncomingMessage> m_deliveries;
    std::vector<std::pair<IncomingMessage, std::string>> m_refused;
    std::vector<std::string> m_gaveUp;
    std::vector<std::string> m_loginRefused;
};

/** A link that is started and connected, with its listener. */
class TestLink
{
  public:
    explicit TestLink(DesiredTopology desired = {}, LinkSettings settings = NodeSettings());

    BrokerLink* operator->() { return &m_link; }
    RecordingListener& Listener() { return m_listener; }

    /** Publishes and waits for the outcome. */
    std::pair<PublishResult, std::string> Publish(OutgoingMessage message);
    /** Publishes a small message that has to be confirmed. */
    void Send(const std::string& queue, const std::string& body);
    /** Publishes that many, numbered from 0 in their bodies, and waits until all are confirmed. */
    void SendMany(const std::string& queue, std::size_t count);
    /** How many messages are ready in the queue. */
    std::uint32_t Count(const std::string& queue);

  private:
    RecordingListener m_listener;
    BrokerLink m_link;
};

/** Waits until the condition holds. @return whether it did */
bool Eventually(const std::function<bool()>& condition);

inline constexpr std::chrono::seconds DEADLINE{30};

} // namespace VtxQel

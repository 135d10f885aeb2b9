#pragma once

#include "broker/BrokerLink.h"
#include "broker/BrokerMessage.h"
#include "broker/DeliveryCounters.h"
#include "common/RmqInfo.h"
#include "common/Scheduler.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace VtxQel
{

/** Headers that the agent adds to dead letters and parked messages. */
namespace Header
{
constexpr const char* REASON = "x-qel-reason";
constexpr const char* APPLICATION = "x-qel-application";
constexpr const char* TRIES = "x-qel-tries";
constexpr const char* TIME = "x-qel-time";
constexpr const char* EXCHANGE = "x-qel-exchange";
constexpr const char* ROUTING_KEY = "x-qel-routing-key";
constexpr const char* QUEUE = "x-qel-queue";
/** These three stand for a property or header that would change what the broker does with the copy. */
constexpr const char* USER_ID = "x-qel-user-id";
constexpr const char* EXPIRATION = "x-qel-expiration";
constexpr const char* CC = "x-qel-cc";
} // namespace Header

/**
 * Settlement decides what the broker is told of each delivery, in one place.
 *
 * Taken by everybody: ack. Dead or parked for a receiver: a copy goes to the dead-letter or the parking queue, and that
 * receiver's share is settled when the broker has confirmed the copy; it is tried again until then. When a copy is
 * refused for good (with the headers that we add it may not fit into a frame), the message is left to its queue's own
 * dead-letter exchange by a reject; a queue that has none would lose it so, and a copy without the message's headers
 * goes to the dead-letter queue instead. Nothing is told of a delivery whose connection is gone: the broker delivers it
 * again.
 *
 * Every operation may be called from any thread; none blocks.
 */
class Settlement
{
  public:
    /**
     * @param worker runs what blocks (declaring parking queues) and the repetitions.
     * @param declare declares a parking queue and returns whether it exists now.
     */
    Settlement(
        BrokerLink& link, const RmqInfo& info, Scheduler& worker,
        std::function<bool(const std::string& queue)> declare);

    void Ack(BrokerMessage& message);
    void DeadLetter(
        const boost::shared_ptr<BrokerMessage>& message, const std::string& application, const std::string& reason,
        std::uint32_t tries);
    void Park(const boost::shared_ptr<BrokerMessage>& message, const std::string& application, std::uint32_t tries);

    /**
     * Publishes a message without content to the end of the application's parking queue, behind everything parked
     * before. The completion is told once whether the broker confirmed it.
     */
    void Mark(const std::string& application, const RmqTable& headers, std::function<void(bool sent)> completion);

    /** The name of an application's parking queue. */
    std::string ParkingQueue(const std::string& application) const;
    /** The application whose parking queue this is, or an empty string. */
    std::string ParkedApplication(const std::string& queue) const;

    /** Whether the broker keeps what is rejected from this queue: one of the agent's own, not an application's. */
    bool HasDeadLetterExchange(const std::string& queue) const;

    /** The broker may be another one: parking queues are declared again before they are published to. */
    void ForgetParkingQueues();

    /** What became of all deliveries. */
    DeliveryCounters& Counters() { return m_counters; }
    const DeliveryCounters& Counters() const { return m_counters; }
    std::size_t HeldBytes() const { return m_held; }

    /** Bytes of the bodies of all messages in the agent's hands; the observer is told of each change. */
    void SetHeldObserver(std::function<void()> observer) { m_heldObserver = std::move(observer); }
    void Hold(std::size_t bytes);
    void Release(std::size_t bytes);

  private:
    struct Copy
    {
        boost::shared_ptr<BrokerMessage> message;
        std::string queue;
        RmqTable headers;
        std::uint32_t attempt = 0;
        /** Without the message's own headers. */
        bool isBare = false;
    };
    struct Parking
    {
        bool declared = false;
        /** What is published once the queue is there. */
        std::vector<std::function<void()>> waiting;
    };

    void OncePresent(const std::string& parkingQueue, std::function<void()> publish);
    void Publish(Copy copy);
    void OnPublished(Copy copy, PublishResult result, const std::string& why);
    void OnRefused(Copy copy, const std::string& why);
    void PublishLater(Copy copy, PublishResult result);
    void DeclareParking(const std::string& queue);

    BrokerLink& m_link;
    const std::string m_clientQueue;
    const std::string m_priorityQueue;
    const std::string m_deadLetterQueue;
    const std::string m_parkingPrefix;
    Scheduler& m_worker;
    const std::function<bool(const std::string& queue)> m_declare;
    std::function<void()> m_heldObserver;
    DeliveryCounters m_counters;
    std::atomic<std::size_t> m_held{0};
    std::mutex m_mutex;
    /** Guarded by m_mutex; by the queue's name. */
    std::map<std::string, Parking> m_parking;
};

} // namespace VtxQel

#pragma once

#include "broker/BrokerMessage.h"
#include "broker/DeliveryCounters.h"
#include "broker/Settlement.h"
#include "common/Progress.h"
#include "common/RmqInfo.h"
#include "common/Scheduler.h"
#include "common/Turn.h"
#include "routing/RoutingRegistry.h"

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace VtxQel
{

/** The route that serves a message, and the key that it was found by: the routing key, or a queue's name. */
struct ServingRoute
{
    const std::string* key = nullptr;
    boost::shared_ptr<RoutingRegistryEntry> entry;
};

/**
 * Lanes carry deliveries to the handlers of their routes, each kind on a thread of its own, so that a configuration of
 * many topics delays neither a ping nor an application's messages.
 *
 * A message is handed to the handler that the routing registry names for its routing key, else for its queue. What the
 * handler accepts is settled when its receivers have answered; what it refuses is dead-lettered; one whose handling
 * ends with an exception is held and tried again, after 1, 2, 4 … 60 s, and dead-lettered after the fifth try. The lane
 * of configurations waits for such a message, the others go on. Bounded by the broker's prefetch.
 */
class Lanes
{
  public:
    Lanes(boost::shared_ptr<RoutingRegistry> registry, boost::shared_ptr<RmqInfo> info, Scheduler& timers);
    ~Lanes();
    Lanes(const Lanes&) = delete;
    Lanes& operator=(const Lanes&) = delete;

    void Start();
    /** Hands a delivery to its lane. Any thread; does not wait. */
    void Push(boost::shared_ptr<BrokerMessage> message);
    /** Each lane finishes the few in its hands and drops the others, which stay with the broker. Idempotent. */
    void Stop();

    /** The route of a message from this queue; its key is one of the arguments, or the client queue's name. */
    ServingRoute RouteOf(const std::string& routingKey, const std::string& queue) const;

    /** The message that the calling thread is handling; nothing when it is not a lane's. */
    static const BrokerMessage* InHand();

    /** How many messages wait in the lane. */
    std::size_t Waiting(LaneKind kind) const;
    /** Whether the lane gets on, for a watchdog: a message is a step, and so is each of the broker's answers. */
    const Progress& ProgressOf(LaneKind kind) const;

  private:
    struct Lane : Turn::Task, boost::enable_shared_from_this<Lane>
    {
        /** Wakes the thread when it has something to do. */
        void OnTurnEnd() override;

        mutable std::mutex mutex;
        std::condition_variable changed;
        /** Guarded by mutex, like the two below. */
        std::deque<boost::shared_ptr<BrokerMessage>> messages;
        bool idle = false;
        bool stopping = false;
        /** Whether a message that fails keeps those behind it waiting. Set before the thread starts, like the next. */
        bool keepOrder = false;
        /** How many messages share a Turn; one where a handler may wait for the broker. */
        std::size_t turnLength = 1;
        Progress progress;
        std::thread thread;
    };

    LaneKind LaneOf(const BrokerMessage& message) const;
    void Run(Lane& lane);
    void TakeTurn(Lane& lane, std::deque<boost::shared_ptr<BrokerMessage>>& batch);
    void Handle(Lane& lane, const boost::shared_ptr<BrokerMessage>& message);
    /** @return whether the message is done with; else `error` says what its handling ended with. */
    bool Try(const boost::shared_ptr<BrokerMessage>& message, std::string& error);
    void Enqueue(Lane& lane, boost::shared_ptr<BrokerMessage> message);

    const boost::shared_ptr<RoutingRegistry> m_registry;
    const boost::shared_ptr<RmqInfo> m_info;
    Scheduler& m_timers;
    std::array<boost::shared_ptr<Lane>, LANE_COUNT> m_lanes;
};

} // namespace VtxQel

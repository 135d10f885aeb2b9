#pragma once

#include "broker/BrokerLink.h"
#include "broker/BrokerMessage.h"
#include "broker/BrokerSettings.h"
#include "broker/ControlUsers.h"
#include "broker/Journal.h"
#include "broker/Lanes.h"
#include "broker/LoopProbe.h"
#include "broker/Settlement.h"
#include "broker/Topology.h"
#include "common/RmqClient.h"
#include "common/RmqInfo.h"
#include "common/Scheduler.h"
#include "logging/RepeatedWarnings.h"
#include "routing/RoutingRegistry.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace VtxQel
{

/** What the client tells and asks the agent. The first two are called on the link's thread; none may block. */
struct BrokerEvents
{
    /** The connection is gone: what was delivered by it comes again. */
    std::function<void()> disconnected;
    /** The broker ended a consumer, or a connection that a move had left: what came by it may come again. */
    std::function<void()> withdrawn;
    /** Connected, consuming and every route restored. */
    std::function<void()> restored;
    /** The body of a ping's reply, as JSON; an empty body without it. */
    std::function<std::string()> pingReply = nullptr;
    /** The broker stops taking messages because of an alarm, or takes them again; on the link's thread. */
    std::function<void(bool blocked)> blocked = nullptr;
};

/**
 * BrokerClient is the agent's client of the broker: it keeps the agent's queues, bindings and consumers in place,
 * brings deliveries through lanes to the handlers of their routes, and carries out the handler's requests.
 *
 * The requests are synchronous, for any thread but the link's, with a budget of 30 s that spans reconnects. A refusal
 * is `false`; when no answer can be had BindTopic and DeclareQueue throw RmqConnectionException, CancelQueue returns
 * true (the consumer went with its connection) and UnbindTopic returns false, which makes the handler end the process.
 */
class BrokerClient : public RmqClient, private LinkListener, private TopologyPort
{
  public:
    /** The registry, the journal and what the functions refer to outlive the client. */
    BrokerClient(
        BrokerSettings settings, boost::shared_ptr<RoutingRegistry> registry, Journal& journal, ApplicationNames names,
        BrokerEvents events);
    ~BrokerClient() override;

    /** Starts lanes and link. Restore the topology before. @throws QelException for a malformed URL. */
    void Start();
    /** Stops consuming and lets the lanes finish what they have in hand; routes and journal stay as they are. */
    void StopConsuming();
    /** Flushes settlements and publishes within the budget, then closes. Idempotent. */
    void Stop(std::chrono::milliseconds budget);

    bool CancelQueue(const std::string& queue) override;
    bool DeclareQueue(const std::string& queue) override;
    bool SendPingReply(
        const std::string& exchange, const std::string& replyTo, const std::string& correlationId) override;
    bool BindTopic(const std::string& queue, const std::string& exchange, const std::string& topic) override;
    bool UnbindTopic(const std::string& clientQueue, const std::string& exchange, const std::string& topic) override;

    Topology& Routes() { return m_topology; }
    Publisher& Publishing() { return m_link; }
    Settlement& Settling() { return m_settlement; }
    /** Moves to the URL of this index, or stays when that cannot be. */
    void MoveTo(std::size_t urlIndex) { m_link.MoveTo(urlIndex); }
    void ReloadTls(const TlsFiles& files) { m_link.ReloadTls(files); }
    void UsePassword(const std::string& password) { m_link.UsePassword(password); }
    LinkStatus Status() const { return m_link.Status(); }
    /** How many control messages were refused because of who sent them. */
    std::uint64_t RefusedControlMessages() const { return m_controlUsers.Refused(); }
    /** What became of deliveries, lane by lane. */
    DeliveryStatus Deliveries() const { return m_settlement.Counters().Read(); }
    /** Bytes of the bodies in hand, and whether nothing more is read because of them. */
    std::size_t HeldBytes() const { return m_settlement.HeldBytes(); }
    bool IsReadingPaused() const { return m_full; }
    /** How many bindings and queues of applications the broker refused to restore on this connection. */
    std::size_t Unrestored() const { return m_unrestored; }
    const LoopProbe& Probe() const { return m_probe; }
    /** The route that serves such a message. */
    ServingRoute RouteOf(const std::string& routingKey, const std::string& queue) const
    {
        return m_lanes.RouteOf(routingKey, queue);
    }
    std::size_t Waiting(LaneKind lane) const { return m_lanes.Waiting(lane); }
    /** For a watchdog: whether a lane gets on, and a task on the link's thread that shows that it does. */
    const Progress& ProgressOf(LaneKind lane) const { return m_lanes.ProgressOf(lane); }
    void PostToLink(std::function<void()> task) { m_link.Post(std::move(task)); }

    /** Consumes an application's parking queue with this many unsettled ahead. Does not wait; repeated until it works.
     */
    void ConsumeParking(const std::string& application, std::uint16_t prefetch);
    /** Stops that and gives what is unsettled back to the queue, in its order. Does not wait. */
    void ReleaseParking(const std::string& application);

  private:
    DesiredTopology OnConnected() override;
    void OnRestored() override;
    void OnRestoreFailed(const std::string& what, const RequestResult& result) override;
    void OnDisconnected(const std::string& why) override;
    void OnMoved() override;
    void OnLeft(std::size_t unsettled) override;
    void OnConsumerCancelled(const std::string& queue) override;
    void OnDelivery(IncomingMessage&& message) override;
    void OnRefusedDelivery(IncomingMessage&& message, const std::string& why) override;
    void OnBlocked(bool blocked) override;
    void OnGaveUp(const std::string& why) override;

    std::vector<RequestResult> Bind(const std::vector<Binding>& bindings) override;
    RequestResult Unbind(const Binding& binding) override;
    RequestResult Consume(const std::string& queue) override;
    RequestResult StopConsuming(const std::string& queue) override;

    RequestResult DeclareParking(const QueueSpec& queue);
    void ReconcileParking(const std::string& application);
    void OnHeld();
    void UpdateReading();
    LoopProbeActions ProbeActions();
    bool IsSaturated() const;
    void ConsumeClientQueueAgain();
    template <class Request>
    std::invoke_result_t<Request> WhileReading(Request request);

    const BrokerSettings m_settings;
    const ApplicationNames m_names;
    const BrokerEvents m_events;
    const boost::shared_ptr<RmqInfo> m_info;
    /** Declares and consumes parking queues and repeats what failed: its tasks wait for the broker. */
    Scheduler m_worker;
    /** Brings held messages back to their lanes: its tasks never wait. */
    Scheduler m_timers;
    Topology m_topology;
    BrokerLink m_link;
    Settlement m_settlement;
    Lanes m_lanes;
    ControlUsers m_controlUsers;
    LoopProbe m_probe;

    /** Messages that came from the client queue. */
    std::atomic<std::uint64_t> m_arrivals{0};
    /** What the broker refused to restore on this connection; used by the link's thread alone. */
    std::set<std::string> m_refusedItems;
    std::atomic<std::size_t> m_unrestored{0};
    RepeatedWarnings m_warnings;
    std::atomic<bool> m_stopping{false};
    std::mutex m_parkingMutex;
    /** The parking queues that are to be consumed, with their prefetch. Guarded by m_parkingMutex. */
    std::map<std::string, std::uint16_t> m_parking;
    std::mutex m_readingMutex;
    /** Changed under m_readingMutex, which guards the two below. */
    std::atomic<bool> m_full{false};
    bool m_paused = false;
    std::size_t m_requests = 0;
};

} // namespace VtxQel

#include "broker/BrokerClient.h"

#include "broker/AgentQueues.h"
#include "common/MessageTypes.h"
#include "logging/Log.h"

#include <boost/make_shared.hpp>

#include <future>
#include <utility>

namespace VtxQel
{

namespace
{

/** How long a request of the handler may take, reconnects included: longer than a quorum queue's fail-over (6 to 12 s).
 */
constexpr std::chrono::seconds REQUEST_BUDGET{30};
constexpr std::chrono::seconds PING_REPLY_BUDGET{5};
constexpr std::chrono::seconds PARKING_RETRY{1};

/** RabbitMQ's direct reply-to: delivered to the requester itself, and reported as unroutable when mandatory. */
constexpr const char* DIRECT_REPLY_TO = "amq.rabbitmq.reply-to";

} // namespace

BrokerClient::BrokerClient(
    BrokerSettings settings, boost::shared_ptr<RoutingRegistry> registry, Journal& journal, ApplicationNames names,
    BrokerEvents events)
    : m_settings(std::move(settings)), m_names(std::move(names)), m_events(std::move(events)),
      m_info(boost::make_shared<RmqInfo>(m_settings.names)), m_worker("qel-worker"), m_timers("qel-timers"),
      m_topology(*this, journal, *m_info), m_link(m_settings.link, *this),
      m_settlement(
          m_link, *m_info, m_worker,
          [this](const std::string& queue)
          { return DeclareParking(CopiesQueue(m_settings, queue)).answer == Answer::ok; }),
      m_lanes(std::move(registry), m_info, m_timers),
      m_controlUsers(
          m_settings.controlUsers,
          [this](std::chrono::seconds delay, Scheduler::Task task) { m_timers.After(delay, std::move(task)); }),
      m_probe(m_settings.loopProbe, m_info->clientQueue, ProbeActions())
{
    m_settlement.SetHeldObserver([this] { OnHeld(); });
}

BrokerClient::~BrokerClient()
{
    StopConsuming();
    Stop(std::chrono::milliseconds(0));
}

void BrokerClient::Start()
{
    m_lanes.Start();
    m_link.Start();
}

void BrokerClient::StopConsuming()
{
    m_stopping = true;
    m_link.StopConsuming();
    // A configuration in hand ends at its next request, and the broker keeps its message.
    m_topology.Freeze();
    m_timers.Stop();
    m_lanes.Stop();
}

void BrokerClient::Stop(std::chrono::milliseconds budget)
{
    m_link.Stop(budget);
    m_worker.Stop();
}

bool BrokerClient::CancelQueue(const std::string& queue)
{
    return m_topology.Cancel(queue);
}

bool BrokerClient::DeclareQueue(const std::string& queue)
{
    return m_topology.Declare(queue);
}

bool BrokerClient::BindTopic(const std::string& queue, const std::string& exchange, const std::string& topic)
{
    return m_topology.Bind({queue, exchange, topic});
}

bool BrokerClient::UnbindTopic(const std::string& clientQueue, const std::string& exchange, const std::string& topic)
{
    return m_topology.Unbind({clientQueue, exchange, topic});
}

bool BrokerClient::SendPingReply(
    const std::string& exchange, const std::string& replyTo, const std::string& correlationId)
{
    OutgoingMessage reply;
    reply.exchange = exchange;
    reply.routingKey = replyTo;
    reply.properties.type = PING_REPLY_TYPE;
    reply.properties.correlationId = correlationId;
    if (m_events.pingReply)
    {
        reply.properties.contentType = "application/json";
        reply.body = m_events.pingReply();
    }
    reply.mandatory = !replyTo.starts_with(DIRECT_REPLY_TO);
    reply.deadline = PING_REPLY_BUDGET;
    if (replyTo.empty())
    {
        return false;
    }
    auto answered = std::make_shared<std::promise<PublishResult>>();
    auto done = [answered](PublishResult result, const std::string&) { answered->set_value(result); };
    if (const BrokerMessage* ping = Lanes::InHand())
    {
        m_link.PublishBack(ping->Incoming(), std::move(reply), std::move(done));
    }
    else
    {
        m_link.Publish(std::move(reply), std::move(done));
    }
    return answered->get_future().get() == PublishResult::confirmed;
}

void BrokerClient::ConsumeParking(const std::string& application, std::uint16_t prefetch)
{
    const std::lock_guard lock(m_parkingMutex);
    m_parking[application] = prefetch;
    m_worker.Post([this, application] { ReconcileParking(application); });
}

void BrokerClient::ReleaseParking(const std::string& application)
{
    const std::lock_guard lock(m_parkingMutex);
    m_parking.erase(application);
    m_worker.Post([this, queue = m_settlement.ParkingQueue(application)]
                  { WhileReading([&] { return m_link.ReleaseQueue(queue, REQUEST_BUDGET); }); });
}

void BrokerClient::ReconcileParking(const std::string& application)
{
    QueueSpec queue;
    {
        const std::lock_guard lock(m_parkingMutex);
        const auto wanted = m_parking.find(application);
        if (wanted == m_parking.end() || m_stopping)
        {
            return;
        }
        queue = SingleConsumerQueue(m_settings, m_settlement.ParkingQueue(application), wanted->second);
    }
    const RequestResult result = DeclareParking(queue);
    if (result.answer != Answer::ok)
    {
        m_warnings.Write("parking queue " + queue.name + " cannot be consumed, trying again: " + result.text);
        m_worker.After(PARKING_RETRY, [this, application] { ReconcileParking(application); });
    }
}

DesiredTopology BrokerClient::OnConnected()
{
    m_settlement.ForgetParkingQueues();
    DesiredTopology desired;
    desired.exchanges = {{m_info->exchange, m_info->exchangeType, m_settings.exchangePassive}};
    desired.ownQueues = {
        PlainQueue(m_settings, m_info->deadLetterQueue, 0), OwnQueue(m_settings, m_info->clientQueue),
        OwnQueue(m_settings, m_info->priorityQueue)};
    desired.bindings = m_topology.Bindings();
    for (const std::string& queue : m_topology.Queues())
    {
        desired.applicationQueues.push_back(PlainQueue(m_settings, queue, m_settings.prefetch));
    }
    const std::lock_guard lock(m_parkingMutex);
    for (const auto& [application, prefetch] : m_parking)
    {
        desired.applicationQueues.push_back(
            SingleConsumerQueue(m_settings, m_settlement.ParkingQueue(application), prefetch));
    }
    return desired;
}

void BrokerClient::OnRestored()
{
    m_events.restored();
    m_probe.Start();
}

void BrokerClient::OnRestoreFailed(const std::string& what, const RequestResult& result)
{
    m_warnings.Write(what + " could not be restored: " + std::to_string(result.code) + " " + result.text);
    if (result.answer == Answer::refused)
    {
        m_refusedItems.insert(what);
        m_unrestored = m_refusedItems.size();
    }
}

void BrokerClient::OnDisconnected(const std::string& why)
{
    QEL_LOG(vtx::LevelDetail, "deliveries in hand belong to the broker again: %s", why.c_str());
    m_probe.Pause();
    m_refusedItems.clear();
    m_unrestored = 0;
    m_events.disconnected();
}

void BrokerClient::OnMoved()
{
    m_probe.Pause();
    m_refusedItems.clear();
    m_unrestored = 0;
}

void BrokerClient::OnLeft(std::size_t unsettled)
{
    if (unsettled > 0)
    {
        m_events.withdrawn();
    }
}

void BrokerClient::OnBlocked(bool blocked)
{
    if (m_events.blocked)
    {
        m_events.blocked(blocked);
    }
}

void BrokerClient::OnConsumerCancelled(const std::string&)
{
    m_events.withdrawn();
}

void BrokerClient::OnDelivery(IncomingMessage&& message)
{
    if (message.queue == m_info->clientQueue)
    {
        m_arrivals.fetch_add(1, std::memory_order_relaxed);
        if (message.properties->type == LOOP_PROBE_TYPE)
        {
            m_link.Settle(message.tag, SettleAs::ack);
            m_probe.Returned(message.properties->messageId);
            return;
        }
    }
    auto delivery = boost::make_shared<BrokerMessage>(std::move(message), m_settlement, m_names);
    const std::string refusal = m_controlUsers.Refusal(*delivery);
    if (!refusal.empty())
    {
        delivery->RefuseSilently(DeadReason::controlRefused, refusal);
        return;
    }
    m_lanes.Push(std::move(delivery));
}

void BrokerClient::OnRefusedDelivery(IncomingMessage&& message, const std::string& why)
{
    QEL_LOG(
        vtx::LevelWarning, "a message of queue %s was refused before it was decoded: %s", message.queue.c_str(),
        why.c_str());
    if (m_settlement.HasDeadLetterExchange(message.queue))
    {
        // The broker keeps more of it than we have.
        m_settlement.Counters().DeadLettered(DeadReason::unreadable);
        m_link.Settle(message.tag, SettleAs::reject);
        return;
    }
    boost::make_shared<BrokerMessage>(std::move(message), m_settlement, m_names)
        ->RefuseSilently(DeadReason::unreadable, "could not be read: " + why);
}

void BrokerClient::OnGaveUp(const std::string& why)
{
    QEL_LOG(vtx::LevelWarning, "no connection to the broker: %s", why.c_str());
}

std::vector<RequestResult> BrokerClient::Bind(const std::vector<Binding>& bindings)
{
    return WhileReading([&] { return m_link.Bind(bindings, REQUEST_BUDGET); });
}

RequestResult BrokerClient::Unbind(const Binding& binding)
{
    return WhileReading([&] { return m_link.Unbind(binding, REQUEST_BUDGET); });
}

RequestResult BrokerClient::Consume(const std::string& queue)
{
    return WhileReading(
        [&] { return m_link.DeclareQueue(PlainQueue(m_settings, queue, m_settings.prefetch), REQUEST_BUDGET); });
}

RequestResult BrokerClient::StopConsuming(const std::string& queue)
{
    return WhileReading([&] { return m_link.CancelQueue(queue, REQUEST_BUDGET); });
}

RequestResult BrokerClient::DeclareParking(const QueueSpec& queue)
{
    return WhileReading([&] { return m_link.DeclareQueue(queue, REQUEST_BUDGET); });
}

void BrokerClient::OnHeld()
{
    const std::size_t most = m_settings.maxHeldBytes;
    const std::size_t bytes = m_settlement.HeldBytes();
    if (m_full ? bytes > most / 2 : bytes <= most)
    {
        // Nearly always so.
        return;
    }
    const std::lock_guard lock(m_readingMutex);
    // Others hold and release meanwhile. One that releases the rest either sees m_full, or is seen by the second look:
    // with nothing held and reading paused nobody would ever come here again.
    do
    {
        const std::size_t held = m_settlement.HeldBytes();
        m_full = held > most || (m_full && held > most / 2);
    } while (m_full && m_settlement.HeldBytes() <= most / 2);
    UpdateReading();
}

/** The caller holds m_readingMutex. */
void BrokerClient::UpdateReading()
{
    const bool pause = m_full && m_requests == 0;
    if (std::exchange(m_paused, pause) != pause)
    {
        m_link.PauseReading(pause);
    }
}

LoopProbeActions BrokerClient::ProbeActions()
{
    return {
        [this](OutgoingMessage message, PublishCompletion completion)
        { m_link.Publish(std::move(message), std::move(completion)); },
        [this](std::chrono::steady_clock::duration delay, std::function<void()> task)
        { m_timers.After(delay, std::move(task)); },
        [this] { return m_arrivals.load(); },
        [this] { return IsSaturated(); },
        [this] { m_worker.Post([this] { ConsumeClientQueueAgain(); }); },
        [this] { m_link.Reconnect("the loop probe does not come back"); }};
}

bool BrokerClient::IsSaturated() const
{
    std::uint64_t inFlight = 0;
    for (const LaneStatus& lane : Deliveries().lanes)
    {
        inFlight += lane.InFlight();
    }
    return m_full || inFlight >= m_settings.prefetch;
}

void BrokerClient::ConsumeClientQueueAgain()
{
    if (m_stopping)
    {
        return;
    }
    QEL_LOG(vtx::LevelStatus, "consuming queue %s anew", m_info->clientQueue.c_str());
    StopConsuming(m_info->clientQueue);
    const RequestResult result =
        WhileReading([&] { return m_link.DeclareQueue(OwnQueue(m_settings, m_info->clientQueue), REQUEST_BUDGET); });
    if (result.answer != Answer::ok)
    {
        QEL_LOG(
            vtx::LevelWarning, "queue %s could not be consumed anew: %s", m_info->clientQueue.c_str(),
            result.text.c_str());
        m_link.Reconnect("queue " + m_info->clientQueue + " could not be consumed anew");
    }
}

template <class Request>
std::invoke_result_t<Request> BrokerClient::WhileReading(Request request)
{
    // The answer comes by the connection that we may have stopped reading.
    {
        const std::lock_guard lock(m_readingMutex);
        ++m_requests;
        UpdateReading();
    }
    auto result = request();
    const std::lock_guard lock(m_readingMutex);
    --m_requests;
    UpdateReading();
    return result;
}

} // namespace VtxQel

#include "broker/Lanes.h"

#include "common/MessageTypes.h"
#include "common/Turn.h"
#include "logging/Log.h"
#include "logging/LogScope.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <chrono>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include <pthread.h>

namespace VtxQel
{

namespace
{

constexpr std::uint32_t MOST_FAILURES = 5;
constexpr std::chrono::seconds LONGEST_DELAY{60};
/** Enough for what a turn saves; the first message of it waits for the others. */
constexpr std::size_t TURN_LENGTH = 32;

constexpr std::array<const char*, 4> THREAD_NAMES{"qel-control", "qel-config", "qel-priority", "qel-normal"};

std::chrono::seconds DelayAfter(std::uint32_t failures)
{
    return std::min(LONGEST_DELAY, std::chrono::seconds(1U << std::min(failures - 1, 6U)));
}

/** The message that this thread is handling. */
thread_local const BrokerMessage* inHand = nullptr;

/** What a dead letter says of a message that its handler refused. */
std::string RefusalOf(const BrokerMessage& message)
{
    const std::string& type = message.Incoming().properties->type;
    if (type == APP_INIT_CONFIG_TYPE)
    {
        return "the configuration was refused";
    }
    if (type == PING_REQUEST_TYPE)
    {
        return "the ping could not be answered";
    }
    if (type == REASSIGN_HINT_TYPE)
    {
        return "the reassign hint was refused";
    }
    return "no application takes the message";
}

} // namespace

Lanes::Lanes(boost::shared_ptr<RoutingRegistry> registry, boost::shared_ptr<RmqInfo> info, Scheduler& timers)
    : m_registry(std::move(registry)), m_info(std::move(info)), m_timers(timers)
{
    for (auto& lane : m_lanes)
    {
        lane = boost::make_shared<Lane>();
    }
}

Lanes::~Lanes()
{
    Stop();
}

void Lanes::Start()
{
    for (std::size_t index = 0; index < m_lanes.size(); ++index)
    {
        Lane& lane = *m_lanes[index];
        const auto kind = static_cast<LaneKind>(index);
        lane.keepOrder = kind == LaneKind::configuration;
        lane.turnLength = kind == LaneKind::priority || kind == LaneKind::normal ? TURN_LENGTH : 1;
        lane.thread = std::thread([this, &lane] { Run(lane); });
        pthread_setname_np(lane.thread.native_handle(), THREAD_NAMES[index]);
    }
}

void Lanes::Push(boost::shared_ptr<BrokerMessage> message)
{
    const LaneKind kind = LaneOf(*message);
    message->EnterLane(kind);
    Enqueue(*m_lanes[static_cast<std::size_t>(kind)], std::move(message));
}

void Lanes::Stop()
{
    for (const auto& lane : m_lanes)
    {
        const std::lock_guard lock(lane->mutex);
        lane->stopping = true;
        lane->changed.notify_all();
    }
    for (const auto& lane : m_lanes)
    {
        if (lane->thread.joinable())
        {
            lane->thread.join();
        }
    }
}

const Progress& Lanes::ProgressOf(LaneKind kind) const
{
    return m_lanes[static_cast<std::size_t>(kind)]->progress;
}

std::size_t Lanes::Waiting(LaneKind kind) const
{
    const Lane& lane = *m_lanes[static_cast<std::size_t>(kind)];
    const std::lock_guard lock(lane.mutex);
    return lane.messages.size();
}

LaneKind Lanes::LaneOf(const BrokerMessage& message) const
{
    const std::string& type = message.Incoming().properties->type;
    LaneKind kind = LaneKind::normal;
    if (IsControlType(type))
    {
        kind = type == APP_INIT_CONFIG_TYPE ? LaneKind::configuration : LaneKind::control;
    }
    else if (message.GetParkedFor().empty() && message.GetQueue() == m_info->priorityQueue)
    {
        // Not what was parked: that keeps the order of its parking queue, and the markers in it.
        kind = LaneKind::priority;
    }
    return kind;
}

void Lanes::Run(Lane& lane)
{
    lane.progress.Attach();
    std::deque<boost::shared_ptr<BrokerMessage>> batch;
    std::unique_lock lock(lane.mutex);
    while (!lane.stopping)
    {
        if (lane.messages.empty())
        {
            lane.idle = true;
            lane.progress.Rest(true);
            lane.changed.wait(lock);
            lane.progress.Rest(false);
            lane.idle = false;
            continue;
        }
        batch.swap(lane.messages);
        while (!batch.empty() && !lane.stopping)
        {
            lock.unlock();
            TakeTurn(lane, batch);
            lock.lock();
        }
    }
}

void Lanes::TakeTurn(Lane& lane, std::deque<boost::shared_ptr<BrokerMessage>>& batch)
{
    // A handler that may wait for the broker must not keep back what it has sent on its way.
    std::optional<Turn> turn;
    if (lane.turnLength > 1)
    {
        turn.emplace();
    }
    for (std::size_t count = 0; count < lane.turnLength && !batch.empty(); ++count)
    {
        inHand = batch.front().get();
        Handle(lane, batch.front());
        inHand = nullptr;
        batch.pop_front();
        lane.progress.Step();
    }
}

void Lanes::Handle(Lane& lane, const boost::shared_ptr<BrokerMessage>& message)
{
    const LogScope scope([&message] { return message->FieldsForLog(); });
    std::string error;
    // A message whose connection is gone comes again.
    while (message->IsCurrent() && !Try(message, error))
    {
        const std::uint32_t failures = message->CountFailure();
        if (failures >= MOST_FAILURES)
        {
            message->Refuse(
                DeadReason::handlingFailed,
                "handling failed " + std::to_string(failures) + " times, last with: " + error);
            return;
        }
        const std::chrono::seconds delay = DelayAfter(failures);
        QEL_LOG(
            vtx::LevelWarning, "handling failed, next try in %lld s: %s. %s", static_cast<long long>(delay.count()),
            error.c_str(), message->ToString().c_str());
        if (!lane.keepOrder)
        {
            m_timers.After(delay, [this, &lane, message] { Enqueue(lane, message); });
            return;
        }
        std::unique_lock lock(lane.mutex);
        lane.progress.Rest(true);
        if (lane.changed.wait_for(lock, delay, [&lane] { return lane.stopping; }))
        {
            return;
        }
        lane.progress.Rest(false);
    }
}

const BrokerMessage* Lanes::InHand()
{
    return inHand;
}

bool Lanes::Try(const boost::shared_ptr<BrokerMessage>& message, std::string& error)
{
    try
    {
        const boost::shared_ptr<RoutingRegistryEntry> route =
            RouteOf(message->GetRoutingKey(), message->GetQueue()).entry;
        if (route && route->handler && route->handler->Callback(message))
        {
            message->Accept();
        }
        else
        {
            message->Refuse(
                IsControlType(message->Incoming().properties->type) ? DeadReason::controlRefused
                                                                    : DeadReason::noApplication,
                RefusalOf(*message));
        }
        return true;
    }
    catch (const std::exception& failure)
    {
        error = failure.what();
    }
    catch (...)
    {
        error = "an exception of an unknown kind";
    }
    return false;
}

ServingRoute Lanes::RouteOf(const std::string& routingKey, const std::string& queue) const
{
    for (const std::string* key : {&routingKey, &queue})
    {
        if (boost::shared_ptr<RoutingRegistryEntry> entry = m_registry->Find(*key))
        {
            return {key, std::move(entry)};
        }
    }
    return {&m_info->clientQueue, m_registry->Find(m_info->clientQueue)};
}

void Lanes::Enqueue(Lane& lane, boost::shared_ptr<BrokerMessage> message)
{
    {
        const std::lock_guard lock(lane.mutex);
        lane.messages.push_back(std::move(message));
        if (!lane.idle)
        {
            // It looks again before it rests.
            return;
        }
        if (lane.messages.size() >= TURN_LENGTH)
        {
            lane.changed.notify_one();
            return;
        }
    }
    Turn::AtEnd(lane.shared_from_this());
}

void Lanes::Lane::OnTurnEnd()
{
    const std::lock_guard lock(mutex);
    if (idle && !messages.empty())
    {
        changed.notify_one();
    }
}

} // namespace VtxQel

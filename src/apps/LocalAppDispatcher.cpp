#include "apps/LocalAppDispatcher.h"

#include "apps/ParkingQueues.h"
#include "common/MessageTypes.h"

#include <boost/smart_ptr/shared_ptr.hpp>

#include <cstddef>
#include <optional>
#include <utility>

namespace VtxQel
{

namespace
{

/** The marker's number when the message is one. */
std::optional<std::uint64_t> MarkerOf(const Delivery& message)
{
    for (const auto& [name, value] : message.GetProperties()->headers)
    {
        if (name != parkingMarkerHeader)
        {
            continue;
        }
        if (const auto* number = std::get_if<std::int64_t>(&value.value))
        {
            return static_cast<std::uint64_t>(*number);
        }
        if (const auto* number = std::get_if<std::uint64_t>(&value.value))
        {
            return *number;
        }
    }
    return std::nullopt;
}

} // namespace

LocalAppDispatcher::LocalAppDispatcher(ApplicationSet& applications, Subscriptions& subscriptions)
    : m_applications(applications), m_subscriptions(subscriptions)
{
    m_subscriptions.Observe([this](const SubscriptionChange& change) { OnChange(change); });
}

bool LocalAppDispatcher::Dispatch(boost::shared_ptr<RmqMessage> msg)
{
    const auto message = boost::dynamic_pointer_cast<Delivery>(msg);
    if (!message)
    {
        return false;
    }
    if (message->GetProperties()->type == APP_INIT_CONFIG_TYPE)
    {
        // It has been carried out; the application's instances learn of it as a change of their configuration.
        return true;
    }
    if (!message->GetParkedFor().empty())
    {
        DispatchParked(message);
        return true;
    }
    if (m_waitingCount.load() != 0)
    {
        const std::lock_guard lock(m_mutex);
        Redispatch([&message](const Waiting& other)
                   { return other.message->GetRoutingKey() == message->GetRoutingKey(); });
    }
    switch (HandOver(message))
    {
    case Outcome::handedOver:
    case Outcome::servedElsewhere:
        return true;
    case Outcome::nobody:
        break;
    }
    if (!m_subscriptions.IsConfiguring())
    {
        return false;
    }
    Wait(message);
    return true;
}

std::string LocalAppDispatcher::ApplicationFor(
    const std::string& queue, const std::string& routingKey, const std::string& appId) const
{
    if (!appId.empty())
    {
        return appId;
    }
    const Receivers receivers = m_subscriptions.Resolve(queue, routingKey);
    return receivers.applications.empty() ? "" : receivers.applications.front();
}

Takers LocalAppDispatcher::TakersOf(
    const std::string& queue, const std::string& routingKey, const std::string& appId) const
{
    if (const auto named = appId.empty() ? nullptr : m_applications.Find(appId))
    {
        Takers takers;
        takers.applications.push_back(named);
        takers.named = true;
        return takers;
    }
    const Receivers receivers = m_subscriptions.Resolve(queue, routingKey);
    Takers takers;
    takers.servedElsewhere = receivers.servedElsewhere;
    for (const std::string& name : receivers.applications)
    {
        if (auto application = m_applications.Find(name))
        {
            takers.applications.push_back(std::move(application));
        }
    }
    return takers;
}

void LocalAppDispatcher::Stop()
{
    const std::lock_guard lock(m_mutex);
    m_waiting.clear();
    m_waitingCount = 0;
}

void LocalAppDispatcher::DispatchParked(const boost::shared_ptr<Delivery>& message)
{
    const std::string& name = message->GetParkedFor();
    const auto application = m_applications.Find(name);
    const std::optional<std::uint64_t> marker = MarkerOf(*message);
    const auto receipt = message->Expect(name);
    if (marker)
    {
        if (application)
        {
            application->MarkerReturned(*marker);
        }
        receipt->Done();
    }
    else if (application)
    {
        application->Offer(message, receipt);
    }
    // An application that has just been removed leaves its messages in its parking queue.
}

LocalAppDispatcher::Outcome LocalAppDispatcher::HandOver(const boost::shared_ptr<Delivery>& message)
{
    const Takers takers = TakersOf(message->GetQueue(), message->GetRoutingKey(), message->GetProperties()->appId);
    boost::container::small_vector<boost::shared_ptr<Receipt>, 2> receipts;
    for (const auto& application : takers.applications)
    {
        receipts.push_back(message->Expect(application->Name()));
    }
    for (std::size_t index = 0; index < receipts.size(); ++index)
    {
        takers.applications[index]->Offer(message, receipts[index]);
    }
    if (!receipts.empty())
    {
        return Outcome::handedOver;
    }
    return takers.servedElsewhere ? Outcome::servedElsewhere : Outcome::nobody;
}

void LocalAppDispatcher::Wait(const boost::shared_ptr<Delivery>& message)
{
    const std::lock_guard lock(m_mutex);
    m_waiting.push_back({message, message->Expect("")});
    ++m_waitingCount;
    // What it waits for may have happened since it was looked for.
    Redispatch([&message](const Waiting& other) { return other.message->GetRoutingKey() == message->GetRoutingKey(); });
}

void LocalAppDispatcher::OnChange(const SubscriptionChange& change)
{
    if (m_waitingCount.load() == 0)
    {
        return;
    }
    const std::lock_guard lock(m_mutex);
    switch (change.kind)
    {
    case SubscriptionChange::Kind::topicAdded:
        if (m_subscriptions.IsPattern(change.key))
        {
            Redispatch([](const Waiting&) { return true; });
        }
        else
        {
            Redispatch([&change](const Waiting& waiting) { return waiting.message->GetRoutingKey() == change.key; });
        }
        return;
    case SubscriptionChange::Kind::queueAdded:
        Redispatch([&change](const Waiting& waiting) { return waiting.message->GetQueue() == change.key; });
        return;
    case SubscriptionChange::Kind::state:
        Redispatch([](const Waiting&) { return true; });
        return;
    }
}

template <typename Concerned>
void LocalAppDispatcher::Redispatch(const Concerned& concerned)
{
    for (auto position = m_waiting.begin(); position != m_waiting.end();)
    {
        if (concerned(*position) && Resolve(*position))
        {
            position = m_waiting.erase(position);
            --m_waitingCount;
        }
        else
        {
            ++position;
        }
    }
}

bool LocalAppDispatcher::Resolve(Waiting& waiting)
{
    switch (HandOver(waiting.message))
    {
    case Outcome::handedOver:
    case Outcome::servedElsewhere:
        waiting.receipt->Done();
        return true;
    case Outcome::nobody:
        break;
    }
    if (m_subscriptions.IsConfiguring())
    {
        return false;
    }
    waiting.receipt->Dead("no application takes this message", waiting.message->GetTries());
    return true;
}

} // namespace VtxQel

#include "broker/Settlement.h"

#include "logging/Log.h"
#include "logging/LogScope.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr auto FIRST_DELAY = std::chrono::milliseconds(500);
constexpr auto ROOM_DELAY = std::chrono::milliseconds(250);
constexpr std::uint32_t MOST_DOUBLINGS = 6;
/** A reason may hold what outsiders wrote; a header has to fit into a frame. */
constexpr std::size_t LONGEST_REASON = 1024;

std::uint64_t SecondsSinceEpoch()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

/** What both kinds of copies say of the message's way so far. */
RmqTable Origin(const IncomingMessage& incoming, std::uint32_t tries)
{
    return {
        {Header::EXCHANGE, RmqValue::String(incoming.exchange)},
        {Header::ROUTING_KEY, RmqValue::String(incoming.routingKey)},
        {Header::QUEUE, RmqValue::String(incoming.queue)},
        {Header::TRIES, RmqValue::Integer(tries)},
        {Header::TIME, RmqValue::Timestamp(SecondsSinceEpoch())}};
}

/**
 * The message as it goes to another queue. The broker would refuse somebody else's user-id, drop the copy at its
 * expiration and send it to the queues that CC names, so these three travel as headers of ours.
 */
RmqProperties CopiedProperties(const RmqProperties& original, const RmqTable& added)
{
    RmqProperties copy = original;
    copy.deliveryMode = 2;
    std::erase_if(
        copy.headers,
        [&added](const auto& header)
        {
            return std::any_of(
                added.begin(), added.end(), [&header](const auto& ours) { return ours.first == header.first; });
        });
    for (auto& header : copy.headers)
    {
        if (header.first == "CC")
        {
            header.first = Header::CC;
        }
    }
    copy.headers.insert(copy.headers.end(), added.begin(), added.end());
    if (!copy.userId.empty())
    {
        copy.headers.emplace_back(Header::USER_ID, RmqValue::String(std::exchange(copy.userId, {})));
    }
    if (!copy.expiration.empty())
    {
        copy.headers.emplace_back(Header::EXPIRATION, RmqValue::String(std::exchange(copy.expiration, {})));
    }
    return copy;
}

} // namespace

Settlement::Settlement(
    BrokerLink& link, const RmqInfo& info, Scheduler& worker, std::function<bool(const std::string& queue)> declare)
    : m_link(link), m_clientQueue(info.clientQueue), m_priorityQueue(info.priorityQueue),
      m_deadLetterQueue(info.deadLetterQueue), m_parkingPrefix(info.clientQueue + ".parked."), m_worker(worker),
      m_declare(std::move(declare))
{
}

void Settlement::Ack(BrokerMessage& message)
{
    if (!message.IsCurrent())
    {
        message.Note(Outcome::returned);
    }
    message.CountSettled();
    m_link.Settle(message.Incoming().tag, SettleAs::ack);
}

void Settlement::DeadLetter(
    const boost::shared_ptr<BrokerMessage>& message, const std::string& application, const std::string& reason,
    std::uint32_t tries)
{
    message->Note(Outcome::dead);
    Copy copy{message, m_deadLetterQueue, Origin(message->Incoming(), tries), 0};
    copy.headers.emplace_back(Header::REASON, RmqValue::String(reason.substr(0, LONGEST_REASON)));
    copy.headers.emplace_back(Header::APPLICATION, RmqValue::String(application));
    Publish(std::move(copy));
}

void Settlement::Park(
    const boost::shared_ptr<BrokerMessage>& message, const std::string& application, std::uint32_t tries)
{
    message->Note(Outcome::parked);
    const std::string queue = ParkingQueue(application);
    OncePresent(queue, [this, copy = Copy{message, queue, Origin(message->Incoming(), tries), 0}] { Publish(copy); });
}

void Settlement::Mark(
    const std::string& application, const RmqTable& headers, std::function<void(bool sent)> completion)
{
    OutgoingMessage marker;
    marker.routingKey = ParkingQueue(application);
    marker.properties.headers = headers;
    marker.properties.deliveryMode = 2;
    marker.mandatory = true;
    OncePresent(
        marker.routingKey,
        [this, marker, completion = std::move(completion)]
        {
            m_link.Publish(
                marker, [completion](PublishResult result, const std::string&)
                { completion(result == PublishResult::confirmed); });
        });
}

void Settlement::OncePresent(const std::string& parkingQueue, std::function<void()> publish)
{
    const std::lock_guard lock(m_mutex);
    Parking& parking = m_parking[parkingQueue];
    if (parking.declared)
    {
        // Under the lock: the order of the calls is the order in the queue.
        publish();
        return;
    }
    parking.waiting.push_back(std::move(publish));
    if (parking.waiting.size() == 1)
    {
        m_worker.Post([this, parkingQueue] { DeclareParking(parkingQueue); });
    }
}

void Settlement::ForgetParkingQueues()
{
    const std::lock_guard lock(m_mutex);
    // One that is being declared has messages that wait for it.
    std::erase_if(m_parking, [](const auto& parking) { return parking.second.declared; });
}

std::string Settlement::ParkingQueue(const std::string& application) const
{
    return m_parkingPrefix + application;
}

std::string Settlement::ParkedApplication(const std::string& queue) const
{
    return queue.starts_with(m_parkingPrefix) ? queue.substr(m_parkingPrefix.size()) : std::string();
}

bool Settlement::HasDeadLetterExchange(const std::string& queue) const
{
    return queue == m_clientQueue || queue == m_priorityQueue;
}

void Settlement::Hold(std::size_t bytes)
{
    m_held += bytes;
    if (m_heldObserver && bytes != 0)
    {
        m_heldObserver();
    }
}

void Settlement::Release(std::size_t bytes)
{
    m_held -= bytes;
    if (m_heldObserver && bytes != 0)
    {
        m_heldObserver();
    }
}

void Settlement::Publish(Copy copy)
{
    if (!copy.message->IsCurrent())
    {
        return;
    }
    OutgoingMessage outgoing;
    outgoing.routingKey = copy.queue;
    RmqProperties original = *copy.message->GetProperties();
    if (copy.isBare)
    {
        original.headers.clear();
    }
    outgoing.properties = CopiedProperties(original, copy.headers);
    const auto body = copy.message->GetBody();
    outgoing.body.assign(reinterpret_cast<const char*>(body->bytes), body->length);
    outgoing.mandatory = true;
    m_link.Publish(
        std::move(outgoing), [this, copy = std::move(copy)](PublishResult result, const std::string& why)
        { OnPublished(copy, result, why); });
}

void Settlement::OnPublished(Copy copy, PublishResult result, const std::string& why)
{
    if (result == PublishResult::confirmed)
    {
        copy.message->Resolve();
        return;
    }
    if (!copy.message->IsCurrent())
    {
        return;
    }
    if (result == PublishResult::refused && !copy.isBare)
    {
        OnRefused(std::move(copy), why);
        return;
    }
    PublishLater(std::move(copy), result);
}

void Settlement::OnRefused(Copy copy, const std::string& why)
{
    BrokerMessage& message = *copy.message;
    m_counters.DeadLettered(DeadReason::copyRefused);
    if (message.GetParkedFor().empty() && HasDeadLetterExchange(message.GetQueue()))
    {
        const LogScope scope([&copy] { return copy.message->FieldsForLog(); });
        QEL_LOG(
            vtx::LevelWarning,
            "queue %s does not take a copy (%s); the message goes to its own queue's dead-letter "
            "exchange: %s",
            copy.queue.c_str(), why.c_str(), message.ToString().c_str());
        // The share stays open, so that no ack follows when the other receivers are done.
        message.Note(Outcome::rejected);
        message.CountSettled();
        m_link.Settle(message.Incoming().tag, SettleAs::reject);
        return;
    }
    QEL_LOG(
        vtx::LevelWarning, "queue %s does not take a copy (%s); the message is dead-lettered without its headers: %s",
        copy.queue.c_str(), why.c_str(), message.ToString().c_str());
    message.Note(Outcome::dead);
    if (copy.queue != m_deadLetterQueue)
    {
        copy.headers.emplace_back(
            Header::REASON, RmqValue::String(("could not be parked: " + why).substr(0, LONGEST_REASON)));
        copy.queue = m_deadLetterQueue;
    }
    copy.isBare = true;
    Publish(std::move(copy));
}

void Settlement::PublishLater(Copy copy, PublishResult result)
{
    // Room comes with the next confirm; trouble of the broker's may last.
    const bool overloaded = result == PublishResult::overloaded;
    const auto delay = overloaded ? ROOM_DELAY : FIRST_DELAY * (1U << std::min(copy.attempt++, MOST_DOUBLINGS));
    const bool missing = result == PublishResult::noRoute;
    m_worker.After(
        delay,
        [this, missing, copy = std::move(copy)]
        {
            if (missing)
            {
                m_declare(copy.queue);
            }
            Publish(copy);
        });
}

void Settlement::DeclareParking(const std::string& queue)
{
    if (!m_declare(queue))
    {
        m_worker.After(FIRST_DELAY, [this, queue] { DeclareParking(queue); });
        return;
    }
    const std::lock_guard lock(m_mutex);
    Parking& parking = m_parking[queue];
    parking.declared = true;
    for (const auto& publish : parking.waiting)
    {
        publish();
    }
    parking.waiting.clear();
}

} // namespace VtxQel

#include "broker/Consumers.h"

#include "common/QelException.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace VtxQel
{

using State = DeliveryChannel::State;

Consumers::Consumers(AmqpConnection& connection, const Channels& channels, Context context)
    : m_connection(connection), m_nextChannel(channels.first), m_lastChannel(channels.last),
      m_context(std::move(context))
{
}

void Consumers::Start(const QueueSpec& queue, Done done)
{
    if (const auto found = m_byQueue.find(queue.name); found != m_byQueue.end())
    {
        found->second->WhenStarted(std::move(done));
        return;
    }
    const std::uint16_t number = FreeChannel();
    if (number == 0)
    {
        done({false, AMQP_RESOURCE_ERROR, "the broker allows no more channels on a connection", 0});
        return;
    }
    auto channel = std::make_unique<DeliveryChannel>(m_connection, number, ++m_context.generation, queue);
    m_byQueue[queue.name] = channel.get();
    m_byGeneration[channel->Generation()] = channel.get();
    channel->WhenStarted(std::move(done));
    m_channels[number] = std::move(channel);
}

std::uint16_t Consumers::FreeChannel()
{
    if (!m_freeChannels.empty())
    {
        const std::uint16_t number = m_freeChannels.extract(m_freeChannels.begin()).value();
        m_closedByBroker.erase(number);
        return number;
    }
    return m_nextChannel > m_lastChannel ? std::uint16_t{0} : m_nextChannel++;
}

void Consumers::Cancel(const std::string& queue, Done done)
{
    const auto found = m_byQueue.find(queue);
    if (found == m_byQueue.end())
    {
        done({true, 0, {}, 0});
        return;
    }
    DeliveryChannel& channel = *found->second;
    m_byQueue.erase(found);
    channel.Cancel(std::move(done));
}

void Consumers::CancelAll(std::function<void()> done)
{
    // Told when the last one is cancelled.
    const std::shared_ptr<void> last(nullptr, [done = std::move(done)](void*) { done(); });
    while (!m_byQueue.empty())
    {
        Cancel(std::string(m_byQueue.begin()->first), [last](const RpcReply&) {});
    }
}

std::vector<std::string> Consumers::Starting() const
{
    std::vector<std::string> queues;
    for (const auto& [queue, channel] : m_byQueue)
    {
        if (channel->GetState() == State::starting)
        {
            queues.push_back(queue);
        }
    }
    return queues;
}

std::uint64_t Consumers::StartingAs(const std::string& queue) const
{
    const auto found = m_byQueue.find(queue);
    const bool starting = found != m_byQueue.end() && found->second->GetState() == State::starting;
    return starting ? found->second->Generation() : 0;
}

void Consumers::Release(const std::string& queue, Done done)
{
    Flush();
    m_byQueue.erase(queue);
    std::vector<DeliveryChannel*> all;
    for (const auto& [number, channel] : m_channels)
    {
        if (channel->Queue() == queue)
        {
            all.push_back(channel.get());
        }
    }
    if (all.empty())
    {
        done({true, 0, {}, 0});
        return;
    }
    // Told when the last one is closed.
    const std::shared_ptr<void> last(nullptr, [done = std::move(done)](void*) { done({true, 0, {}, 0}); });
    for (DeliveryChannel* channel : all)
    {
        channel->Release([last](const RpcReply&) {});
    }
}

bool Consumers::Settle(const DeliveryTag& tag, SettleAs as)
{
    if (m_lastSettled == nullptr || m_lastSettled->Generation() != tag.generation)
    {
        const auto found = m_byGeneration.find(tag.generation);
        if (found == m_byGeneration.end())
        {
            return false;
        }
        m_lastSettled = found->second;
        m_toFlush.insert(m_lastSettled);
    }
    m_lastSettled->Settle(tag.tag, as);
    return true;
}

bool Consumers::IsStarving() const
{
    return std::any_of(
        m_toFlush.begin(), m_toFlush.end(), [](const DeliveryChannel* channel) { return channel->IsStarving(); });
}

void Consumers::Flush()
{
    m_lastSettled = nullptr;
    for (DeliveryChannel* channel : std::exchange(m_toFlush, {}))
    {
        channel->Flush();
    }
}

bool Consumers::HasDrained() const
{
    return std::any_of(
        m_channels.begin(), m_channels.end(),
        [](const auto& channel) { return channel.second->GetState() == State::drained; });
}

bool Consumers::IsDrained() const
{
    return std::all_of(
        m_channels.begin(), m_channels.end(),
        [](const auto& channel)
        {
            const State state = channel.second->GetState();
            return state == State::drained || state == State::closing || state == State::closed;
        });
}

void Consumers::CloseDrained(std::chrono::steady_clock::time_point since)
{
    for (const auto& [number, channel] : m_channels)
    {
        channel->CloseIfDrained(since);
    }
}

DeliveryChannel& Consumers::At(std::uint16_t channel)
{
    const auto found = m_channels.find(channel);
    if (found == m_channels.end())
    {
        throw RmqConnectionException("received a frame on channel " + std::to_string(channel) + ", which is not open");
    }
    return *found->second;
}

void Consumers::ForgetQueue(const DeliveryChannel& channel)
{
    const auto found = m_byQueue.find(channel.Queue());
    if (found != m_byQueue.end() && found->second == &channel)
    {
        m_byQueue.erase(found);
    }
}

void Consumers::Forget(std::uint16_t channel)
{
    DeliveryChannel& gone = At(channel);
    ForgetQueue(gone);
    m_byGeneration.erase(gone.Generation());
    m_toFlush.erase(&gone);
    m_lastSettled = nullptr;
    m_channels.erase(channel);
    m_freeChannels.insert(channel);
}

void Consumers::OnMethod(std::uint16_t channel, const amqp_method_t& method)
{
    if (m_closedByBroker.count(channel) > 0)
    {
        return;
    }
    DeliveryChannel& target = At(channel);
    const std::string queue = target.Queue();
    const auto event = target.OnMethod(method);
    if (event != DeliveryChannel::Event::none)
    {
        ForgetQueue(target);
    }
    const std::string why = target.CloseReason().text;
    if (target.GetState() == State::closed)
    {
        Forget(channel);
        if (method.id == AMQP_CHANNEL_CLOSE_METHOD)
        {
            m_closedByBroker.insert(channel);
        }
    }
    if (event != DeliveryChannel::Event::none)
    {
        m_context.onLost(queue, event == DeliveryChannel::Event::consumerCancelled, why);
    }
}

void Consumers::OnContent(std::uint16_t channel, AmqpContent&& content)
{
    if (m_closedByBroker.count(channel) > 0)
    {
        return;
    }
    DeliveryChannel& target = At(channel);
    if (content.method != AMQP_BASIC_DELIVER_METHOD || !target.Accept(content.deliveryTag))
    {
        return;
    }
    IncomingMessage message;
    message.tag = {target.Generation(), content.deliveryTag};
    message.source = target.Source();
    message.queue = target.Queue();
    message.exchange = std::move(content.exchange);
    message.routingKey = std::move(content.routingKey);
    message.redelivered = content.redelivered;
    message.properties = std::move(content.properties);
    message.body = std::move(content.body);
    if (content.refused.empty())
    {
        m_context.listener.OnDelivery(std::move(message));
    }
    else
    {
        m_context.listener.OnRefusedDelivery(std::move(message), content.refused);
    }
}

void Consumers::EndDeliveries()
{
    for (const auto& [number, channel] : m_channels)
    {
        channel->EndDeliveries();
    }
}

std::size_t Consumers::Unsettled() const
{
    std::size_t unsettled = 0;
    for (const auto& [number, channel] : m_channels)
    {
        unsettled += channel->Unsettled();
    }
    return unsettled;
}

void Consumers::ForgetStarts(const std::string& why)
{
    for (const auto& [number, channel] : m_channels)
    {
        channel->ForgetStart(why);
    }
}

void Consumers::Fail(const std::string& why)
{
    m_byQueue.clear();
    m_byGeneration.clear();
    m_toFlush.clear();
    m_lastSettled = nullptr;
    for (const auto& [number, channel] : m_channels)
    {
        channel->Fail(why);
    }
}

} // namespace VtxQel

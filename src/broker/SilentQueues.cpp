#include "broker/SilentQueues.h"

#include "common/QelException.h"
#include "logging/Log.h"

#include <algorithm>
#include <utility>

namespace VtxQel
{

using boost::system::error_code;
using Milliseconds = std::chrono::milliseconds;

namespace
{

/** The broker may have been busy for a moment only. */
constexpr Milliseconds FIRST_PAUSE{1000};
constexpr Milliseconds LONGEST_PAUSE{120000};

} // namespace

SilentQueues::SilentQueues(
    boost::asio::io_context& io, ConnectionSource& source, std::function<std::size_t()> urlIndex, OnAnswered onAnswered,
    OnSilent onSilent)
    : m_source(source), m_urlIndex(std::move(urlIndex)), m_onAnswered(std::move(onAnswered)),
      m_onSilent(std::move(onSilent)), m_timer(io), m_pause(FIRST_PAUSE)
{
}

void SilentQueues::Add(const std::string& queue)
{
    if (m_queues.try_emplace(queue, 0U).second)
    {
        QEL_LOG(
            vtx::LevelWarning,
            "The broker does not answer for queue %s; it is tried apart from the others until there is an answer",
            queue.c_str());
        m_pause = FIRST_PAUSE;
        Schedule();
    }
}

void SilentQueues::Remove(const std::string& queue)
{
    m_queues.erase(queue);
}

bool SilentQueues::IsTried(const std::string& queue) const
{
    const auto found = m_queues.find(queue);
    return found != m_queues.end() && found->second > 0;
}

void SilentQueues::Stop()
{
    m_queues.clear();
    m_timer.cancel();
    if (const auto connection = std::exchange(m_connection, nullptr))
    {
        connection->Drop();
    }
}

void SilentQueues::Schedule()
{
    if (m_connection || m_queues.empty())
    {
        return;
    }
    m_timer.expires_after(m_pause);
    m_timer.async_wait(
        [this](const error_code& error)
        {
            if (!error && !m_queues.empty())
            {
                Try();
            }
        });
}

void SilentQueues::Try()
{
    m_answered.clear();
    m_pause = std::min(2 * m_pause, LONGEST_PAUSE);
    try
    {
        m_connection = m_source.Make(m_urlIndex(), ConnectionUse::trial, *this);
        m_connection->Open();
    }
    catch (const RmqException& e)
    {
        OnClosed(e.what());
    }
}

void SilentQueues::OnOpen()
{
    for (const auto& [name, trials] : m_queues)
    {
        if (m_channels.size() < m_connection->ChannelMax())
        {
            QueueSpec queue;
            queue.name = name;
            queue.prefetch = 1;
            const auto number = static_cast<std::uint16_t>(m_channels.size() + 1);
            m_channels.push_back(std::make_unique<DeliveryChannel>(*m_connection, number, number, queue));
        }
    }
    m_timer.expires_after(m_source.Settings().queuePatience);
    m_timer.async_wait(
        [connection = m_connection](const error_code& error)
        {
            if (!error)
            {
                connection->Close();
            }
        });
}

void SilentQueues::OnMethod(std::uint16_t channel, const amqp_method_t& method)
{
    if (channel == 0 || channel > m_channels.size())
    {
        throw RmqConnectionException("received a frame on channel " + std::to_string(channel) + ", which is not open");
    }
    DeliveryChannel& tried = *m_channels[channel - 1];
    tried.OnMethod(method);
    if (tried.GetState() != DeliveryChannel::State::starting)
    {
        m_answered.insert(tried.Queue());
    }
}

void SilentQueues::OnReadEnd()
{
    if (!m_channels.empty() && m_answered.size() == m_channels.size())
    {
        m_timer.cancel();
        m_connection->Close();
    }
}

void SilentQueues::OnClosed(const std::string&)
{
    m_timer.cancel();
    m_connection.reset();
    const auto channels = std::exchange(m_channels, {});
    const auto answered = std::exchange(m_answered, {});
    for (const auto& channel : channels)
    {
        const std::string& queue = channel->Queue();
        const auto found = m_queues.find(queue);
        if (found == m_queues.end())
        {
            continue;
        }
        if (answered.count(queue) > 0)
        {
            m_queues.erase(found);
            QEL_LOG(vtx::LevelStatus, "The broker answers for queue %s again", queue.c_str());
            m_onAnswered(queue);
        }
        else
        {
            ++found->second;
            m_onSilent(queue);
        }
    }
    Schedule();
}

} // namespace VtxQel

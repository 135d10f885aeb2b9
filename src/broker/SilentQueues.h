#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BrokerLink.h"
#include "broker/ConnectionSource.h"
#include "broker/DeliveryChannel.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * SilentQueues keeps the applications' queues that the broker did not answer for away from the consuming connection.
 *
 * RabbitMQ holds the consumer's request to a quorum queue without a leader for about a minute and then ends the whole
 * connection. Such queues are therefore tried on a connection of their own, all together and with growing pauses, until
 * the broker answers for them, be it with a refusal; a message that comes meanwhile goes back to its queue. Lives on
 * the I/O thread.
 */
class SilentQueues : private AmqpConnectionHandler
{
  public:
    /** The broker answers for the queue again, which is not kept here any more. */
    using OnAnswered = std::function<void(const std::string& queue)>;
    /** A trial ended without an answer for the queue. */
    using OnSilent = std::function<void(const std::string& queue)>;

    /** @param urlIndex where to connect, asked for at each trial. */
    SilentQueues(
        boost::asio::io_context& io, ConnectionSource& source, std::function<std::size_t()> urlIndex,
        OnAnswered onAnswered, OnSilent onSilent);

    void Add(const std::string& queue);
    /** Nobody wants the queue any more. */
    void Remove(const std::string& queue);
    bool Contains(const std::string& queue) const { return m_queues.count(queue) > 0; }
    /** Whether a trial of the queue has ended in vain. */
    bool IsTried(const std::string& queue) const;
    /** Ends the trial that is under way; there are no more. */
    void Stop();

  private:
    void OnOpen() override;
    void OnMethod(std::uint16_t channel, const amqp_method_t& method) override;
    void OnContent(std::uint16_t, AmqpContent&&) override {}
    void OnBlocked(bool, const std::string&) override {}
    void OnReadEnd() override;
    void OnWritten() override {}
    void OnClosed(const std::string& why) override;

    void Schedule();
    void Try();

    ConnectionSource& m_source;
    std::function<std::size_t()> m_urlIndex;
    OnAnswered m_onAnswered;
    OnSilent m_onSilent;

    /** Each queue with the number of trials that were in vain. */
    std::map<std::string, unsigned> m_queues;
    boost::asio::steady_timer m_timer;
    std::chrono::milliseconds m_pause;

    /** The trial that is under way. */
    std::shared_ptr<AmqpConnection> m_connection;
    std::vector<std::unique_ptr<DeliveryChannel>> m_channels;
    std::set<std::string> m_answered;
};

} // namespace VtxQel

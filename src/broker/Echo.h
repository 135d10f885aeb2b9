#pragma once

#include "broker/AmqpConnection.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace VtxQel
{

/**
 * Echo asks the broker for an answer that no queue can hold up, by opening a channel.
 *
 * A line with little room delays every answer by the messages that come before it, for minutes if there are enough.
 * What was asked before the echo and is unanswered when the echo comes is owed by the broker, not by the line. One per
 * connection; lives on the I/O thread.
 */
class Echo
{
  public:
    /** @param channel for the echo alone */
    Echo(AmqpConnection& connection, std::uint16_t channel) : m_connection(connection), m_channel(channel) {}

    std::uint16_t Channel() const { return m_channel; }
    /** Calls back when the echo of a question that is asked now, or later, has come. May then end the connection. */
    void Ask(std::function<void()> heard);
    /** Nobody is called back any more; what comes is still taken. */
    void Forget();
    /** @throws RmqConnectionException for what nobody asked for */
    void OnMethod(const amqp_method_t& method);

  private:
    void Open();

    AmqpConnection& m_connection;
    const std::uint16_t m_channel;
    bool m_busy = false;
    /** Whose question is on its way, and who asked later. */
    std::vector<std::function<void()>> m_asked;
    std::vector<std::function<void()>> m_waiting;
};

} // namespace VtxQel

#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BrokerLink.h"
#include "broker/Consumers.h"
#include "broker/Echo.h"
#include "broker/RpcChannel.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace VtxQel
{

/** A consuming connection with what belongs to it. */
struct ConsumingSession
{
    std::size_t urlIndex = 0;
    std::shared_ptr<AmqpConnection> connection;
    std::unique_ptr<RpcChannel> rpc;
    std::unique_ptr<Echo> echo;
    std::unique_ptr<Consumers> consumers;
};

/**
 * LeavingConnection is the consuming connection that a move has left: its consumers are cancelled, and it lives until
 * everything that it delivered is settled, or a limit has passed and the broker gets back what is not. Lives on the I/O
 * thread.
 */
class LeavingConnection : private AmqpConnectionHandler, public std::enable_shared_from_this<LeavingConnection>
{
  public:
    /** Told once at the end. @param unsettled deliveries that the broker has got back */
    using Left = std::function<void(std::size_t unsettled)>;

    LeavingConnection(boost::asio::io_context& io, ConsumingSession session, Left left);
    ~LeavingConnection() override;
    LeavingConnection(const LeavingConnection&) = delete;
    LeavingConnection& operator=(const LeavingConnection&) = delete;

    void Start(std::chrono::milliseconds limit);
    /** @return whether it delivered what is settled */
    bool Settle(const DeliveryTag& tag, SettleAs as);
    void Flush();
    /** Gives back what is unsettled of this queue. @param done told when the broker has it, or the connection has ended
     */
    void Release(const std::string& queue, Consumers::Done done);
    bool IsStarving() const { return m_session.consumers->IsStarving(); }
    bool HasDelivered(const DeliveryTag& tag) const { return m_session.consumers->HasDelivered(tag); }
    std::size_t UrlIndex() const { return m_session.urlIndex; }
    std::size_t Unsettled() const { return m_session.consumers->Unsettled(); }

    /** Whether the session can be taken back. */
    bool IsOpen() const { return m_session.connection->IsOpen() && !m_givingBack; }
    /** The connection is wanted again; nobody is told of its end. */
    ConsumingSession TakeBack();
    /** Closes it in order. */
    void Close();

    /** In this time a quorum queue has worked off the acknowledgements that it got. */
    static constexpr std::chrono::milliseconds WORKED_OFF{1000};

  private:
    void OnOpen() override {}
    void OnMethod(std::uint16_t channel, const amqp_method_t& method) override;
    void OnContent(std::uint16_t channel, AmqpContent&& content) override;
    void OnBlocked(bool, const std::string&) override {}
    void OnReadEnd() override { Flush(); }
    void OnWritten() override {}
    void OnClosed(const std::string& why) override;

    void CloseWhenWorkedOff();
    void GiveBack();

    ConsumingSession m_session;
    Left m_left;
    boost::asio::steady_timer m_limit;
    boost::asio::steady_timer m_workedOff;
    bool m_waiting = false;
    /** What is unsettled belongs to the broker again. */
    bool m_givingBack = false;
    std::size_t m_givenBack = 0;
};

} // namespace VtxQel

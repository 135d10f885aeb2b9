#pragma once

#include "broker/AmqpConnection.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

namespace VtxQel
{

/** How the broker answered one request. */
struct RpcReply
{
    bool ok = false;
    /** The reply code of the channel's close; 0 when the connection ended instead. */
    std::uint16_t code = 0;
    std::string text;
    /** Of queue.declare-ok. */
    std::uint32_t messageCount = 0;
    std::uint32_t consumerCount = 0;
};

/** One request that the broker answers with the method that follows it in the protocol's numbering. */
struct Rpc
{
    amqp_method_number_t method = 0;
    /** Sends the request's method on the channel; called again when the request has to be repeated. */
    std::function<void(AmqpConnection& connection, std::uint16_t channel)> send;
    /** Called once. */
    std::function<void(const RpcReply& reply)> done;
};

/**
 * RpcChannel carries requests on a channel of its own, in their order and pipelined.
 *
 * The broker closes the channel at a request that it refuses and ignores everything behind that; the refused request
 * hears the code, the others are sent again on the channel opened anew. Lives on the I/O thread, as long as its
 * connection.
 */
class RpcChannel
{
  public:
    RpcChannel(AmqpConnection& connection, std::uint16_t channel);

    void Call(Rpc rpc);
    /** Requests without an answer, sent or not. */
    std::size_t Pending() const { return m_sent.size() + m_waiting.size(); }
    void OnMethod(const amqp_method_t& method);
    /** The connection ended: everything pending is answered so. */
    void Fail(const std::string& why);
    /** Everything pending is answered so, and what the broker answers to it later is ignored. */
    void Forget(const std::string& why);

    static constexpr std::size_t WINDOW = 256;

  private:
    void Open();
    void Pump();
    void OnClose(const amqp_channel_close_t& close);

    AmqpConnection& m_connection;
    std::uint16_t m_channel;
    bool m_open = false;
    std::deque<Rpc> m_sent;
    std::deque<Rpc> m_waiting;
};

} // namespace VtxQel

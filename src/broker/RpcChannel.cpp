#include "broker/RpcChannel.h"

#include "common/QelException.h"

#include <iterator>
#include <utility>
#include <vector>

namespace VtxQel
{

RpcChannel::RpcChannel(AmqpConnection& connection, std::uint16_t channel) : m_connection(connection), m_channel(channel)
{
    Open();
}

void RpcChannel::Open()
{
    m_connection.Send(m_channel, AMQP_CHANNEL_OPEN_METHOD, amqp_channel_open_t{amqp_empty_bytes});
}

void RpcChannel::Call(Rpc rpc)
{
    m_waiting.push_back(std::move(rpc));
    Pump();
}

void RpcChannel::Pump()
{
    while (m_open && !m_waiting.empty() && m_sent.size() < WINDOW)
    {
        Rpc rpc = std::move(m_waiting.front());
        m_waiting.pop_front();
        try
        {
            rpc.send(m_connection, m_channel);
        }
        catch (const RmqMessageException& e)
        {
            rpc.done({false, AMQP_SYNTAX_ERROR, e.what(), 0});
            continue;
        }
        m_sent.push_back(std::move(rpc));
    }
}

void RpcChannel::OnMethod(const amqp_method_t& method)
{
    if (method.id == AMQP_CHANNEL_OPEN_OK_METHOD)
    {
        m_open = true;
    }
    else if (method.id == AMQP_CHANNEL_CLOSE_METHOD)
    {
        OnClose(*static_cast<const amqp_channel_close_t*>(method.decoded));
    }
    else if (!m_sent.empty() && method.id == m_sent.front().method + 1)
    {
        RpcReply reply{true, 0, {}, 0};
        if (method.id == AMQP_QUEUE_DECLARE_OK_METHOD)
        {
            const auto& declared = *static_cast<const amqp_queue_declare_ok_t*>(method.decoded);
            reply.messageCount = declared.message_count;
            reply.consumerCount = declared.consumer_count;
        }
        const Rpc rpc = std::move(m_sent.front());
        m_sent.pop_front();
        rpc.done(reply);
    }
    else
    {
        throw RmqConnectionException(std::string("received ") + amqp_method_name(method.id) + " that nobody asked for");
    }
    Pump();
}

void RpcChannel::OnClose(const amqp_channel_close_t& close)
{
    const RpcReply reply{false, close.reply_code, FromAmqp(close.reply_text), 0};
    m_connection.Send(m_channel, AMQP_CHANNEL_CLOSE_OK_METHOD, amqp_channel_close_ok_t{});
    m_open = false;
    Open();
    // The oldest unanswered request is the refused one: the broker answers in order.
    std::deque<Rpc> sent = std::exchange(m_sent, {});
    if (sent.empty())
    {
        return;
    }
    const Rpc refused = std::move(sent.front());
    sent.pop_front();
    std::erase_if(sent, [](const Rpc& rpc) { return !rpc.send; });
    m_waiting.insert(m_waiting.begin(), std::make_move_iterator(sent.begin()), std::make_move_iterator(sent.end()));
    refused.done(reply);
}

void RpcChannel::Forget(const std::string& why)
{
    std::deque<Rpc> waiting = std::exchange(m_waiting, {});
    std::vector<decltype(Rpc::done)> all;
    for (Rpc& rpc : m_sent)
    {
        all.push_back(std::exchange(rpc.done, [](const RpcReply&) {}));
        rpc.send = nullptr;
    }
    for (Rpc& rpc : waiting)
    {
        all.push_back(std::move(rpc.done));
    }
    for (const auto& done : all)
    {
        done({false, 0, why, 0});
    }
}

void RpcChannel::Fail(const std::string& why)
{
    m_open = false;
    std::deque<Rpc> all = std::exchange(m_sent, {});
    for (Rpc& rpc : m_waiting)
    {
        all.push_back(std::move(rpc));
    }
    m_waiting.clear();
    for (const Rpc& rpc : all)
    {
        rpc.done({false, 0, why, 0});
    }
}

} // namespace VtxQel

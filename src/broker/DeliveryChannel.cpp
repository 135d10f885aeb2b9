#include "broker/DeliveryChannel.h"

#include "common/QelException.h"

#include <utility>

namespace VtxQel
{

namespace
{

const RpcReply OK{true, 0, {}, 0};

} // namespace

DeliveryChannel::DeliveryChannel(
    AmqpConnection& connection, std::uint16_t channel, std::uint64_t generation, const QueueSpec& queue)
    : m_connection(connection), m_channel(channel), m_generation(generation), m_queue(queue.name),
      m_consumerTag("qel-" + std::to_string(generation)), m_prefetch(queue.prefetch)
{
    m_connection.Send(m_channel, AMQP_CHANNEL_OPEN_METHOD, amqp_channel_open_t{amqp_empty_bytes});
    m_connection.Send(m_channel, AMQP_BASIC_QOS_METHOD, amqp_basic_qos_t{0, queue.prefetch, 0});
    amqp_basic_consume_t consume{};
    consume.queue = ToAmqp(m_queue);
    consume.consumer_tag = ToAmqp(m_consumerTag);
    m_connection.Send(m_channel, AMQP_BASIC_CONSUME_METHOD, consume);
}

void DeliveryChannel::Tell(std::vector<Done>& all, const RpcReply& reply)
{
    for (const Done& done : std::exchange(all, {}))
    {
        done(reply);
    }
}

void DeliveryChannel::WhenStarted(Done done)
{
    if (m_state == State::starting)
    {
        m_started.push_back(std::move(done));
    }
    else
    {
        done(m_state == State::consuming ? OK : m_closeReason);
    }
}

void DeliveryChannel::Cancel(Done done)
{
    m_stopped.push_back(std::move(done));
    if (m_state == State::starting || m_state == State::consuming)
    {
        m_state = State::cancelling;
        m_connection.Send(m_channel, AMQP_BASIC_CANCEL_METHOD, amqp_basic_cancel_t{ToAmqp(m_consumerTag), 0});
    }
    else if (m_state != State::cancelling)
    {
        Tell(m_stopped, OK);
    }
}

void DeliveryChannel::Release(Done done)
{
    m_stopped.push_back(std::move(done));
    Close();
}

bool DeliveryChannel::Accept(std::uint64_t tag)
{
    if (m_state == State::closing || m_state == State::closed)
    {
        return false;
    }
    if (!m_tags.Add(tag))
    {
        throw RmqConnectionException("received delivery tag " + std::to_string(tag) + " out of order");
    }
    m_state = m_state == State::drained ? State::draining : m_state;
    return true;
}

void DeliveryChannel::Flush()
{
    if (m_state == State::closing || m_state == State::closed)
    {
        return;
    }
    m_tags.Flush(
        [this](std::uint64_t tag, SettleAs as, bool multiple)
        {
            if (as == SettleAs::ack)
            {
                m_connection.Send(
                    m_channel, AMQP_BASIC_ACK_METHOD, amqp_basic_ack_t{tag, static_cast<amqp_boolean_t>(multiple)});
            }
            else
            {
                m_connection.Send(
                    m_channel, AMQP_BASIC_REJECT_METHOD,
                    amqp_basic_reject_t{tag, static_cast<amqp_boolean_t>(as == SettleAs::requeue)});
            }
        });
    if (m_state == State::draining)
    {
        Drain();
    }
}

void DeliveryChannel::Drain()
{
    m_state = State::draining;
    if (m_tags.Unsettled() == 0 && !m_tags.HasNews())
    {
        m_state = State::drained;
        m_drainedAt = std::chrono::steady_clock::now();
    }
}

void DeliveryChannel::CloseIfDrained(std::chrono::steady_clock::time_point since)
{
    if (m_state == State::drained && m_drainedAt <= since)
    {
        Close();
    }
}

void DeliveryChannel::Close()
{
    if (m_state != State::closing && m_state != State::closed)
    {
        m_state = State::closing;
        m_source->End();
        m_connection.Send(
            m_channel, AMQP_CHANNEL_CLOSE_METHOD, amqp_channel_close_t{AMQP_REPLY_SUCCESS, ToAmqp("done"), 0, 0});
    }
}

DeliveryChannel::Event DeliveryChannel::OnMethod(const amqp_method_t& method)
{
    switch (method.id)
    {
    case AMQP_CHANNEL_OPEN_OK_METHOD:
    case AMQP_BASIC_QOS_OK_METHOD:
        return Event::none;
    case AMQP_BASIC_CONSUME_OK_METHOD:
        if (m_state == State::starting)
        {
            m_state = State::consuming;
        }
        Tell(m_started, OK);
        return Event::none;
    case AMQP_BASIC_CANCEL_METHOD:
        if (m_state == State::starting || m_state == State::consuming)
        {
            Drain();
            return Event::consumerCancelled;
        }
        return Event::none;
    case AMQP_BASIC_CANCEL_OK_METHOD:
        if (m_state == State::cancelling)
        {
            Drain();
            Tell(m_stopped, OK);
        }
        return Event::none;
    case AMQP_CHANNEL_CLOSE_OK_METHOD:
        Fail("closed");
        return Event::none;
    case AMQP_CHANNEL_CLOSE_METHOD:
    {
        const auto& close = *static_cast<const amqp_channel_close_t*>(method.decoded);
        m_closeReason = {false, close.reply_code, FromAmqp(close.reply_text), 0};
        m_connection.Send(m_channel, AMQP_CHANNEL_CLOSE_OK_METHOD, amqp_channel_close_ok_t{});
        // Both sides closed at once: theirs is answered, the answer to ours comes still.
        if (m_state == State::closing)
        {
            return Event::none;
        }
        const bool consumed = m_state == State::consuming || m_state == State::draining;
        Tell(m_started, m_closeReason);
        Fail(m_closeReason.text);
        return consumed ? Event::channelClosed : Event::none;
    }
    default:
        throw RmqConnectionException(std::string("received ") + amqp_method_name(method.id) + " on a delivery channel");
    }
}

void DeliveryChannel::Fail(const std::string& why)
{
    m_state = State::closed;
    m_source->End();
    Tell(m_started, {false, 0, why, 0});
    // Whether cancelled, released or lost: the queue is not consumed any more, which is what was asked for.
    Tell(m_stopped, OK);
}

} // namespace VtxQel

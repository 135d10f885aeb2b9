#include "broker/LeavingConnection.h"

#include "broker/MoveTrial.h"

#include <utility>

namespace VtxQel
{

using boost::system::error_code;

LeavingConnection::LeavingConnection(boost::asio::io_context& io, ConsumingSession session, Left left)
    : m_session(std::move(session)), m_left(std::move(left)), m_limit(io), m_workedOff(io)
{
    m_session.connection->SetHandler(this);
}

LeavingConnection::~LeavingConnection()
{
    if (m_session.connection)
    {
        m_session.connection->Drop();
    }
}

void LeavingConnection::Start(std::chrono::milliseconds limit)
{
    m_limit.expires_after(limit);
    m_limit.async_wait(
        [weak = weak_from_this()](const error_code& error)
        {
            const auto self = weak.lock();
            if (!error && self)
            {
                self->GiveBack();
            }
        });
    Flush();
}

bool LeavingConnection::Settle(const DeliveryTag& tag, SettleAs as)
{
    return !m_givingBack && m_session.consumers->Settle(tag, as);
}

void LeavingConnection::Flush()
{
    m_session.consumers->Flush();
    if (!m_waiting && m_session.consumers->IsDrained())
    {
        CloseWhenWorkedOff();
    }
}

void LeavingConnection::Release(const std::string& queue, Consumers::Done done)
{
    m_session.consumers->Release(queue, std::move(done));
}

/** What is not settled by now comes again; what is needs its time on the broker like everything before. */
void LeavingConnection::GiveBack()
{
    m_session.consumers->Flush();
    m_givenBack = m_session.consumers->Unsettled();
    m_givingBack = true;
    m_session.consumers->EndDeliveries();
    CloseWhenWorkedOff();
}

void LeavingConnection::CloseWhenWorkedOff()
{
    m_waiting = true;
    m_workedOff.expires_after(WORKED_OFF);
    m_workedOff.async_wait(
        [weak = weak_from_this()](const error_code& error)
        {
            const auto self = weak.lock();
            if (!error && self)
            {
                self->Close();
            }
        });
}

void LeavingConnection::Close()
{
    m_session.connection->Close();
}

ConsumingSession LeavingConnection::TakeBack()
{
    m_limit.cancel();
    m_workedOff.cancel();
    m_left = nullptr;
    return std::exchange(m_session, {});
}

void LeavingConnection::OnMethod(std::uint16_t channel, const amqp_method_t& method)
{
    if (channel == MoveTrial::RPC_CHANNEL)
    {
        m_session.rpc->OnMethod(method);
    }
    else if (channel == m_session.echo->Channel())
    {
        m_session.echo->OnMethod(method);
    }
    else
    {
        m_session.consumers->OnMethod(channel, method);
    }
}

void LeavingConnection::OnContent(std::uint16_t channel, AmqpContent&& content)
{
    m_session.consumers->OnContent(channel, std::move(content));
}

void LeavingConnection::OnClosed(const std::string& why)
{
    const auto self = shared_from_this();
    m_limit.cancel();
    m_workedOff.cancel();
    if (!m_givingBack)
    {
        m_givenBack = m_session.consumers->Unsettled();
    }
    m_session.rpc->Fail(why);
    m_session.consumers->Fail(why);
    if (const Left left = std::exchange(m_left, nullptr))
    {
        left(m_givenBack);
    }
}

} // namespace VtxQel

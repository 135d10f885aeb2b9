#include "broker/BadPort.h"

namespace VtxQel
{

using Tcp = boost::asio::ip::tcp;

BadPort::BadPort(Habit habit) : m_acceptor(m_io, {boost::asio::ip::address_v4::loopback(), 0})
{
    m_port = m_acceptor.local_endpoint().port();
    if (habit == Habit::refuses)
    {
        m_acceptor.close();
    }
    else if (habit == Habit::hangsUp)
    {
        HangUp();
        m_thread = std::thread([this] { m_io.run(); });
    }
}

BadPort::~BadPort()
{
    m_io.stop();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

void BadPort::HangUp()
{
    m_acceptor.async_accept(
        [this](const boost::system::error_code& error, Tcp::socket)
        {
            if (!error)
            {
                HangUp();
            }
        });
}

} // namespace VtxQel

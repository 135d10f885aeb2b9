#include "broker/Echo.h"

#include "common/QelException.h"

#include <string>
#include <utility>

namespace VtxQel
{

void Echo::Ask(std::function<void()> heard)
{
    m_waiting.push_back(std::move(heard));
    if (!m_busy)
    {
        Open();
    }
}

void Echo::Forget()
{
    m_asked.clear();
    m_waiting.clear();
}

void Echo::Open()
{
    m_busy = true;
    m_asked = std::exchange(m_waiting, {});
    m_connection.Send(m_channel, AMQP_CHANNEL_OPEN_METHOD, amqp_channel_open_t{amqp_empty_bytes});
}

void Echo::OnMethod(const amqp_method_t& method)
{
    if (m_busy && method.id == AMQP_CHANNEL_OPEN_OK_METHOD)
    {
        m_connection.Send(
            m_channel, AMQP_CHANNEL_CLOSE_METHOD, amqp_channel_close_t{AMQP_REPLY_SUCCESS, ToAmqp("echo"), 0, 0});
        for (const auto& heard : std::exchange(m_asked, {}))
        {
            heard();
        }
    }
    else if (m_busy && method.id == AMQP_CHANNEL_CLOSE_OK_METHOD)
    {
        m_busy = false;
        if (!m_waiting.empty())
        {
            Open();
        }
    }
    else
    {
        throw RmqConnectionException(std::string("received ") + amqp_method_name(method.id) + " that nobody asked for");
    }
}

} // namespace VtxQel

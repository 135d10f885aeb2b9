#include "broker/AddressRace.h"

#include <boost/asio/post.hpp>

#include <utility>

namespace VtxQel
{

using boost::system::error_code;

AddressRace::AddressRace(boost::asio::io_context& io, std::vector<Tcp::endpoint> addresses)
    : m_io(io), m_addresses(std::move(addresses)), m_headStart(io)
{
}

void AddressRace::Start(Done done)
{
    m_done = std::move(done);
    boost::asio::post(m_io, [self = shared_from_this()] { self->StartNext(); });
}

void AddressRace::Cancel()
{
    m_next = m_addresses.size();
    StopOthers();
}

void AddressRace::StartNext()
{
    if (m_next == m_addresses.size())
    {
        if (m_attempts.empty())
        {
            Finish(Tcp::socket(m_io));
        }
        return;
    }
    const auto attempt = std::make_shared<Attempt>(m_io, m_addresses[m_next++]);
    m_attempts.push_back(attempt);
    attempt->timer.expires_after(PATIENCE);
    attempt->timer.async_wait(
        [attempt](const error_code& error)
        {
            if (!error)
            {
                attempt->timedOut = true;
                error_code ignored;
                attempt->socket.close(ignored);
            }
        });
    attempt->socket.async_connect(
        attempt->address,
        [self = shared_from_this(), attempt](const error_code& error) { self->OnConnect(attempt, error); });
    m_headStart.expires_after(HEAD_START);
    m_headStart.async_wait(
        [self = shared_from_this()](const error_code& error)
        {
            if (!error && self->m_next < self->m_addresses.size())
            {
                self->StartNext();
            }
        });
}

void AddressRace::OnConnect(const AttemptPtr& attempt, const error_code& error)
{
    attempt->timer.cancel();
    m_attempts.remove(attempt);
    if (!m_done)
    {
        return;
    }
    if (!error && attempt->socket.is_open())
    {
        Finish(std::move(attempt->socket));
        return;
    }
    m_failures.push_back({attempt->address, attempt->timedOut ? "no answer within 5 s" : error.message()});
    StartNext();
}

void AddressRace::StopOthers()
{
    m_headStart.cancel();
    for (const AttemptPtr& attempt : m_attempts)
    {
        error_code ignored;
        attempt->timer.cancel();
        attempt->socket.close(ignored);
    }
}

void AddressRace::Finish(Tcp::socket&& socket)
{
    StopOthers();
    if (const Done done = std::exchange(m_done, nullptr))
    {
        done(std::move(socket), m_failures);
    }
}

} // namespace VtxQel

#include "broker/BrokerSocket.h"

#include <boost/asio/write.hpp>

#include <utility>

#include <netinet/tcp.h>

namespace VtxQel
{

namespace asio = boost::asio;
using boost::system::error_code;

BrokerSocket::BrokerSocket(asio::io_context& io, BrokerUrl url, std::shared_ptr<const TlsMaterial> tls)
    : m_url(std::move(url)), m_material(std::move(tls)), m_io(io), m_socket(io), m_timer(io)
{
}

void BrokerSocket::Connect(std::chrono::milliseconds userTimeout, OnConnect done)
{
    m_userTimeout = userTimeout;
    m_done = std::move(done);
    m_lookup.emplace(
        m_io, m_url.host, m_url.port,
        [weak = weak_from_this()](const HostLookup::Endpoints& endpoints, const std::string& why)
        {
            if (const auto self = weak.lock())
            {
                self->OnResolved(endpoints, why);
            }
        });
    m_timer.expires_after(LOOKUP_TIMEOUT);
    m_timer.async_wait(
        [self = shared_from_this()](const error_code& error)
        {
            if (!error)
            {
                self->OnResolved({}, "no answer within 10 s");
            }
        });
}

void BrokerSocket::OnResolved(const HostLookup::Endpoints& endpoints, const std::string& why)
{
    if (!m_done)
    {
        return;
    }
    m_timer.cancel();
    if (!why.empty())
    {
        Finish("cannot resolve " + m_url.host + ": " + why);
        return;
    }
    m_addresses = endpoints;
    TryAddresses();
}

void BrokerSocket::TryAddresses()
{
    if (m_closed || m_addresses.empty())
    {
        Finish(m_errors.empty() ? "no address to connect to" : m_errors);
        return;
    }
    m_race = std::make_shared<AddressRace>(m_io, m_addresses);
    m_race->Start([self = shared_from_this()](Tcp::socket&& socket, const std::vector<AddressRace::Failure>& failures)
                  { self->OnRaced(std::move(socket), failures); });
}

void BrokerSocket::OnRaced(Tcp::socket&& socket, const std::vector<AddressRace::Failure>& failures)
{
    m_race.reset();
    for (const AddressRace::Failure& failure : failures)
    {
        Exclude(failure.address, failure.why);
    }
    error_code error;
    m_address = socket.remote_endpoint(error);
    if (m_closed || error)
    {
        Finish(m_errors.empty() ? "the connection was lost at once: " + error.message() : m_errors);
        return;
    }
    m_tls.reset();
    m_socket = std::move(socket);
    SetOptions();
    if (m_url.tls)
    {
        StartTls();
    }
    else
    {
        Finish({});
    }
}

/** Does not try the address any more. */
void BrokerSocket::Exclude(const Tcp::endpoint& address, const std::string& why)
{
    const bool isV6 = address.address().is_v6();
    m_errors += (m_errors.empty() ? "" : "; ") + std::string(isV6 ? "[" : "") + address.address().to_string() +
                (isV6 ? "]:" : ":") + std::to_string(address.port()) + ": " + why;
    std::erase(m_addresses, address);
}

void BrokerSocket::SetOptions()
{
    // All of these only tune: a socket without them works.
    error_code ignored;
    m_socket.set_option(Tcp::no_delay(true), ignored);
    m_socket.set_option(asio::socket_base::keep_alive(true), ignored);
    if (m_userTimeout.count() > 0)
    {
        using UserTimeout = asio::detail::socket_option::integer<IPPROTO_TCP, TCP_USER_TIMEOUT>;
        m_socket.set_option(UserTimeout(static_cast<int>(m_userTimeout.count())), ignored);
    }
}

void BrokerSocket::StartTls()
{
    m_peer.emplace(m_url, m_material);
    m_tls.emplace(m_socket, *m_material->context);
    if (!m_peer->Prepare(m_tls->native_handle()))
    {
        Finish("TLS: the host name cannot be verified: " + m_url.host);
        return;
    }
    m_tls->set_verify_callback([this](bool accepted, asio::ssl::verify_context& context)
                               { return m_peer->OnCertificate(accepted, context); });
    StartHandshakeTimer();
    m_tls->async_handshake(
        asio::ssl::stream_base::client, [self = shared_from_this()](const error_code& error) { self->OnTls(error); });
}

void BrokerSocket::StartHandshakeTimer()
{
    m_timedOut = false;
    m_timer.expires_after(HANDSHAKE_TIMEOUT);
    m_timer.async_wait(
        [self = shared_from_this()](const error_code& error)
        {
            // One that fired together with what it waited for comes too late.
            if (!error && self->m_done && self->m_timer.expiry() <= std::chrono::steady_clock::now())
            {
                self->m_timedOut = true;
                error_code none;
                self->m_socket.close(none);
            }
        });
}

void BrokerSocket::OnTls(const error_code& error)
{
    m_timer.cancel();
    if (!error && !m_timedOut)
    {
        Finish({});
        return;
    }
    Exclude(
        m_address, m_timedOut ? "TLS: " + m_url.host + ":" + std::to_string(m_url.port) +
                                    " did not answer the handshake within 5 s: does it hang, or speak something else "
                                    "than TLS?"
                              : m_peer->Explain(error));
    TryAddresses();
}

std::string BrokerSocket::Explain(const error_code& error) const
{
    const bool ofTls = m_tls && error.category() == asio::error::get_ssl_category();
    return ofTls ? m_peer->Explain(error) : error.message();
}

void BrokerSocket::Finish(const std::string& why)
{
    if (OnConnect done = std::exchange(m_done, nullptr))
    {
        done(why);
    }
}

void BrokerSocket::Read(char* space, std::size_t size, OnTransfer done)
{
    if (m_tls)
    {
        m_tls->async_read_some(asio::buffer(space, size), std::move(done));
    }
    else
    {
        m_socket.async_read_some(asio::buffer(space, size), std::move(done));
    }
}

void BrokerSocket::Write(const std::string& bytes, OnTransfer done)
{
    if (m_tls)
    {
        asio::async_write(*m_tls, asio::buffer(bytes), std::move(done));
    }
    else
    {
        asio::async_write(m_socket, asio::buffer(bytes), std::move(done));
    }
}

std::size_t BrokerSocket::Waiting()
{
    error_code ignored;
    const std::size_t inside = m_tls ? BIO_ctrl_pending(SSL_get_rbio(m_tls->native_handle())) : 0;
    return inside + m_socket.available(ignored);
}

void BrokerSocket::Close()
{
    m_closed = true;
    error_code ignored;
    m_lookup.reset();
    if (m_race)
    {
        m_race->Cancel();
    }
    m_timer.cancel();
    m_socket.shutdown(Tcp::socket::shutdown_both, ignored);
    m_socket.close(ignored);
}

} // namespace VtxQel

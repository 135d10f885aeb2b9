#include "broker/BrokerSocket.h"

#include "common/QelException.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/write.hpp>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <utility>

#include <netinet/tcp.h>

namespace VtxQel
{

namespace asio = boost::asio;
using boost::system::error_code;

namespace
{

void Require(const error_code& error, const std::string& what)
{
    if (error)
    {
        throw RmqConnectionException(what + ": " + error.message());
    }
}

bool IsAddress(const std::string& host)
{
    error_code error;
    asio::ip::make_address(host, error);
    return !error;
}

} // namespace

std::shared_ptr<asio::ssl::context> MakeTlsContext(const TlsFiles& files)
{
    auto context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
    error_code error;
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    context->set_verify_mode(asio::ssl::verify_peer);
    if (files.caFile.empty())
    {
        context->set_default_verify_paths(error);
        Require(error, "cannot read the system's certificates");
    }
    else
    {
        context->load_verify_file(files.caFile, error);
        Require(error, "cannot read the CA file " + files.caFile);
    }
    if (!files.certificateFile.empty())
    {
        context->use_certificate_chain_file(files.certificateFile, error);
        Require(error, "cannot read the certificate " + files.certificateFile);
    }
    if (!files.keyFile.empty())
    {
        context->use_private_key_file(files.keyFile, asio::ssl::context::pem, error);
        Require(error, "cannot use the key " + files.keyFile);
    }
    return context;
}

BrokerSocket::BrokerSocket(asio::io_context& io, BrokerUrl url, std::shared_ptr<asio::ssl::context> tls)
    : m_url(std::move(url)), m_tlsContext(std::move(tls)), m_io(io), m_socket(io), m_timer(io)
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
    m_addresses.assign(endpoints.begin(), endpoints.end());
    TryNextAddress();
}

void BrokerSocket::TryNextAddress()
{
    if (m_closed || m_addresses.empty())
    {
        Finish(m_errors.empty() ? "no address to connect to" : m_errors);
        return;
    }
    error_code ignored;
    m_socket.close(ignored);
    m_timedOut = false;
    m_timer.expires_after(ADDRESS_TIMEOUT);
    m_timer.async_wait(
        [self = shared_from_this()](const error_code& error)
        {
            if (!error)
            {
                self->m_timedOut = true;
                error_code none;
                self->m_socket.close(none);
            }
        });
    m_socket.async_connect(
        m_addresses.front(), [self = shared_from_this()](const error_code& error) { self->OnAddress(error); });
}

void BrokerSocket::OnAddress(const error_code& error)
{
    m_timer.cancel();
    if (error || m_timedOut)
    {
        const Tcp::endpoint endpoint = m_addresses.front();
        const bool isV6 = endpoint.address().is_v6();
        m_errors += (m_errors.empty() ? "" : "; ") + std::string(isV6 ? "[" : "") + endpoint.address().to_string() +
                    (isV6 ? "]:" : ":") + std::to_string(endpoint.port()) + ": " +
                    (m_timedOut ? "no answer within 5 s" : error.message());
        m_addresses.pop_front();
        TryNextAddress();
        return;
    }
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
    m_tls.emplace(m_socket, *m_tlsContext);
    SSL* ssl = m_tls->native_handle();
    X509_VERIFY_PARAM* parameters = SSL_get0_param(ssl);
    int taken = 0;
    if (IsAddress(m_url.host))
    {
        taken = X509_VERIFY_PARAM_set1_ip_asc(parameters, m_url.host.c_str());
    }
    else
    {
        X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        taken = X509_VERIFY_PARAM_set1_host(parameters, m_url.host.c_str(), m_url.host.size());
        taken = taken == 1 ? static_cast<int>(SSL_set_tlsext_host_name(ssl, m_url.host.c_str())) : taken;
    }
    if (taken != 1)
    {
        Finish("TLS: the host name cannot be verified: " + m_url.host);
        return;
    }
    m_timer.expires_after(ADDRESS_TIMEOUT);
    m_timer.async_wait(
        [self = shared_from_this()](const error_code& error)
        {
            if (!error)
            {
                self->m_timedOut = true;
                self->Close();
            }
        });
    m_tls->async_handshake(
        asio::ssl::stream_base::client, [self = shared_from_this()](const error_code& error) { self->OnTls(error); });
}

void BrokerSocket::OnTls(const error_code& error)
{
    m_timer.cancel();
    if (!error && !m_timedOut)
    {
        Finish({});
        return;
    }
    const long verdict = SSL_get_verify_result(m_tls->native_handle());
    if (m_timedOut)
    {
        Finish("TLS: no answer within 5 s");
    }
    else if (verdict != X509_V_OK)
    {
        Finish(std::string("TLS: the broker's certificate is not accepted: ") + X509_verify_cert_error_string(verdict));
    }
    else
    {
        Finish("TLS: " + error.message());
    }
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

void BrokerSocket::Close()
{
    m_closed = true;
    error_code ignored;
    m_lookup.reset();
    m_timer.cancel();
    m_socket.shutdown(Tcp::socket::shutdown_both, ignored);
    m_socket.close(ignored);
}

} // namespace VtxQel

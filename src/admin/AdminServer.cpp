#include "admin/AdminServer.h"

#include "admin/AdminException.h"
#include "admin/ListenAddress.h"

#include <boost/asio/post.hpp>

#include <chrono>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <pthread.h>

namespace VtxQel
{

namespace asio = boost::asio;
using boost::system::error_code;

namespace
{

constexpr std::size_t MOST_CONNECTIONS = 64;
/** After this many nothing is accepted any more, so that those turned away do not add up either. */
constexpr std::size_t MOST_SESSIONS = 2 * MOST_CONNECTIONS;
constexpr std::chrono::milliseconds PAUSE{100};

} // namespace

AdminServer::AdminServer(AdminPort& port) : m_endpoint(port) {}

AdminServer::~AdminServer()
{
    Stop();
}

void AdminServer::ListenOn(int unixSocket)
{
    const int own = ::fcntl(unixSocket, F_DUPFD_CLOEXEC, 0);
    error_code failed;
    m_local.assign(asio::local::stream_protocol(), own, failed);
    if (own < 0 || failed)
    {
        throw AdminException("the admin endpoint's socket cannot be served: " + failed.message());
    }
}

void AdminServer::ListenOn(const std::string& address)
{
    const asio::ip::tcp::endpoint endpoint = LoopbackEndpoint(address);
    error_code failed;
    m_tcp.open(endpoint.protocol(), failed);
    if (!failed)
    {
        m_tcp.set_option(asio::socket_base::reuse_address(true), failed);
        m_tcp.bind(endpoint, failed);
    }
    if (!failed)
    {
        m_tcp.listen(asio::socket_base::max_listen_connections, failed);
    }
    if (failed)
    {
        throw AdminException("admin.listen: the agent cannot listen on " + address + ": " + failed.message());
    }
}

std::uint16_t AdminServer::Port() const
{
    return m_tcp.is_open() ? m_tcp.local_endpoint().port() : std::uint16_t{0};
}

void AdminServer::Start()
{
    if (m_local.is_open())
    {
        Accept(m_local, AdminEndpoint::Origin::socket);
    }
    if (m_tcp.is_open())
    {
        Accept(m_tcp, AdminEndpoint::Origin::loopback);
    }
    m_thread = std::thread([this] { m_io.run(); });
    pthread_setname_np(m_thread.native_handle(), "qel-admin");
}

void AdminServer::Stop()
{
    m_io.stop();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

template <class Acceptor>
void AdminServer::Accept(Acceptor& acceptor, AdminEndpoint::Origin origin)
{
    acceptor.async_accept(
        [this, &acceptor, origin](const error_code& error, typename Acceptor::protocol_type::socket socket)
        {
            if (!error && m_connections < MOST_SESSIONS)
            {
                Serve(AdminSession::Socket(std::move(socket)), origin);
                Accept(acceptor, origin);
                return;
            }
            // Most likely no descriptor is left: not at once again.
            m_pause.expires_after(PAUSE);
            m_pause.async_wait([this, &acceptor, origin](const error_code&) { Accept(acceptor, origin); });
        });
}

void AdminServer::Serve(AdminSession::Socket socket, AdminEndpoint::Origin origin)
{
    ++m_connections;
    const auto session =
        std::make_shared<AdminSession>(std::move(socket), m_endpoint, origin, [this] { --m_connections; });
    if (m_connections > MOST_CONNECTIONS)
    {
        session->TurnAway();
        return;
    }
    session->Start();
}

} // namespace VtxQel

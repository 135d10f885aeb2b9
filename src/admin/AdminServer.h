#pragma once

#include "admin/AdminEndpoint.h"
#include "admin/AdminSession.h"

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

namespace VtxQel
{

/**
 * AdminServer serves the admin endpoint by HTTP on a Unix socket and, if wanted, on a TCP port of the loopback
 * interface. One thread of its own does everything; connections are bounded and those over the bound turned away.
 *
 * Listen...(), Start() and Stop() are called by one thread.
 */
class AdminServer
{
  public:
    /** The port outlives the server. */
    explicit AdminServer(AdminPort& port);
    /** As Stop(). */
    ~AdminServer();
    AdminServer(const AdminServer&) = delete;
    AdminServer& operator=(const AdminServer&) = delete;

    /** Serves this listening Unix socket; the descriptor is duplicated, the file stays its owner's. */
    void ListenOn(int unixSocket);
    /** Listens on the loopback interface, for example "127.0.0.1:9477". @throws AdminException when that cannot be. */
    void ListenOn(const std::string& address);
    /** The TCP port that is listened on; 0 without one. */
    std::uint16_t Port() const;

    void Start();
    /** Ends every connection and the thread. Idempotent. */
    void Stop();

  private:
    template <class Acceptor>
    void Accept(Acceptor& acceptor, AdminEndpoint::Origin origin);
    void Serve(AdminSession::Socket socket, AdminEndpoint::Origin origin);

    AdminEndpoint m_endpoint;
    /** Used by the thread alone. Outlives what ends with the io_context: the connections. */
    std::size_t m_connections = 0;
    boost::asio::io_context m_io{1};
    boost::asio::local::stream_protocol::acceptor m_local{m_io};
    boost::asio::ip::tcp::acceptor m_tcp{m_io};
    boost::asio::steady_timer m_pause{m_io};
    std::thread m_thread;
};

} // namespace VtxQel

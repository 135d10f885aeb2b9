#pragma once

#include "apps/Complaints.h"
#include "apps/ListeningSocket.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>

#include <functional>
#include <memory>
#include <string>

namespace VtxQel
{

/**
 * SocketAcceptor accepts the connections of one application's socket, lets in whom the socket's owner allows, and hands
 * them on. Runs on the io_context's one thread; Open() and Close() are called there or while it does not run. When the
 * process has no descriptor left it refuses connections, with a pause, instead of spinning.
 */
class SocketAcceptor : public boost::enable_shared_from_this<SocketAcceptor>
{
  public:
    /** Takes over a connected socket. `false`: it was closed because there are too many. */
    using Serve = std::function<bool(int socket)>;

    /** @throws AppsException when the socket cannot be made. */
    SocketAcceptor(
        boost::asio::io_context& io, const std::string& path, const ApplicationSettings& settings, Serve serve);
    ~SocketAcceptor();
    SocketAcceptor(const SocketAcceptor&) = delete;
    SocketAcceptor& operator=(const SocketAcceptor&) = delete;

    void Open();
    void Close();
    const SocketOwner& Owner() const { return m_owner; }

  private:
    void Wait();
    void AcceptAll();
    void RefuseOne();
    void Admit(int socket);

    const SocketOwner m_owner;
    const Serve m_serve;
    std::unique_ptr<ListeningSocket> m_socket;
    boost::asio::posix::stream_descriptor m_descriptor;
    boost::asio::steady_timer m_pause;
    bool m_closed = false;
    /** Given up for a moment to be able to accept and close a connection when no other descriptor is left. */
    int m_reserve = -1;
    Complaints m_complaints;
};

} // namespace VtxQel

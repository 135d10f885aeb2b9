#include "apps/SocketAcceptor.h"

#include "common/SFormat.h"

#include <cerrno>
#include <chrono>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

constexpr std::chrono::milliseconds pauseWithoutDescriptors{100};

int NewReserve()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsExhaustion(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

} // namespace

SocketAcceptor::SocketAcceptor(
    boost::asio::io_context& io, const std::string& path, const ApplicationSettings& settings, Serve serve)
    : m_owner(OwnerOf(settings)), m_serve(std::move(serve)), m_socket(std::make_unique<ListeningSocket>(path, m_owner)),
      m_descriptor(io), m_pause(io), m_reserve(NewReserve()), m_complaints(settings.name)
{
}

SocketAcceptor::~SocketAcceptor()
{
    Close();
    if (m_reserve >= 0)
    {
        ::close(m_reserve);
    }
}

void SocketAcceptor::Open()
{
    m_descriptor.assign(m_socket->Descriptor());
    Wait();
}

void SocketAcceptor::Close()
{
    m_closed = true;
    m_pause.cancel();
    if (m_descriptor.is_open())
    {
        // The descriptor belongs to the socket, which closes it.
        m_descriptor.release();
    }
    m_socket.reset();
}

void SocketAcceptor::Wait()
{
    m_descriptor.async_wait(
        boost::asio::posix::stream_descriptor::wait_read,
        [self = shared_from_this()](const boost::system::error_code& error)
        {
            if (!error && !self->m_closed)
            {
                self->AcceptAll();
            }
        });
}

void SocketAcceptor::AcceptAll()
{
    while (true)
    {
        const int socket = ::accept4(m_socket->Descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket >= 0)
        {
            Admit(socket);
            continue;
        }
        if (IsExhaustion(errno))
        {
            RefuseOne();
            return;
        }
        if (errno != EINTR && errno != ECONNABORTED)
        {
            Wait();
            return;
        }
    }
}

void SocketAcceptor::RefuseOne()
{
    m_complaints.Write("no file descriptor is left for a connection: refused");
    if (m_reserve >= 0)
    {
        ::close(m_reserve);
    }
    const int socket = ::accept4(m_socket->Descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket >= 0)
    {
        ::close(socket);
    }
    m_reserve = NewReserve();
    m_pause.expires_after(pauseWithoutDescriptors);
    m_pause.async_wait(
        [self = shared_from_this()](const boost::system::error_code& error)
        {
            if (!error && !self->m_closed)
            {
                self->Wait();
            }
        });
}

void SocketAcceptor::Admit(int socket)
{
    const std::optional<Peer> peer = PeerOf(socket);
    if (!peer || !MayConnect(*peer, m_owner))
    {
        ::close(socket);
        m_complaints.Write(
            peer ? SFormat(
                       "refused process %d of user %u, group %u: only user %u and group %u may attach",
                       static_cast<int>(peer->process), peer->user, peer->group, m_owner.user, m_owner.group)
                 : "refused a connection whose peer the kernel does not name");
    }
    else if (!m_serve(socket))
    {
        m_complaints.Write("refused a connection: the application has as many as it may");
    }
}

} // namespace VtxQel

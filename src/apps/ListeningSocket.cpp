#include "apps/ListeningSocket.h"

#include "apps/AppsException.h"
#include "common/SFormat.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <type_traits>

#include <sys/acl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

constexpr mode_t socketMode = 0660;
constexpr int backlog = 128;
constexpr std::size_t longestPath = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void Throw(const std::string& path, const char* what)
{
    const std::string cause = std::generic_category().message(errno);
    throw AppsException(SFormat("socket %s: %s: %s", path.c_str(), what, cause.c_str()));
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(static_cast<char*>(address.sun_path), path.data(), path.size());
    return address;
}

int NewSocket()
{
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

/**
 * Whether somebody listens there. A socket that we may not even ask was given to an application's user by an agent
 * before us, which is gone.
 */
bool IsServed(const std::string& path)
{
    const int probe = NewSocket();
    const sockaddr_un address = AddressOf(path);
    const bool isLeftBehind = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 &&
                              (errno == ECONNREFUSED || errno == EACCES);
    ::close(probe);
    return !isLeftBehind;
}

} // namespace

ListeningSocket::ListeningSocket(const std::string& path, const SocketOwner& owner) : m_path(path)
{
    if (path.size() > longestPath)
    {
        throw AppsException(SFormat(
            "socket %s: the path has %zu bytes and the system allows %zu: use a shorter runtime directory or name",
            path.c_str(), path.size(), longestPath));
    }
    m_descriptor = NewSocket();
    if (m_descriptor < 0)
    {
        Throw(m_path, "cannot be made");
    }
    try
    {
        RemoveStale();
        Bind();
        SetAccess(owner);
        if (::listen(m_descriptor, backlog) != 0)
        {
            Throw(m_path, "cannot listen");
        }
    }
    catch (const AppsException&)
    {
        ::close(m_descriptor);
        throw;
    }
}

ListeningSocket::~ListeningSocket()
{
    struct stat info = {};
    if (::lstat(m_path.c_str(), &info) == 0 && info.st_ino == m_inode)
    {
        ::unlink(m_path.c_str());
    }
    ::close(m_descriptor);
}

void ListeningSocket::RemoveStale() const
{
    struct stat info = {};
    if (::lstat(m_path.c_str(), &info) != 0)
    {
        return;
    }
    if (!S_ISSOCK(info.st_mode))
    {
        throw AppsException(SFormat("socket %s: there is a file that is no socket", m_path.c_str()));
    }
    if (IsServed(m_path))
    {
        throw AppsException(SFormat("socket %s: another process serves it", m_path.c_str()));
    }
    ::unlink(m_path.c_str());
}

void ListeningSocket::Bind()
{
    const sockaddr_un address = AddressOf(m_path);
    if (::bind(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    {
        Throw(m_path, "cannot bind");
    }
    struct stat info = {};
    if (::lstat(m_path.c_str(), &info) == 0)
    {
        m_inode = info.st_ino;
    }
}

/** Nobody can connect before listen(), so nobody gets in before mode and owner are right. */
void ListeningSocket::SetAccess(const SocketOwner& owner) const
{
    if (::chmod(m_path.c_str(), socketMode) != 0)
    {
        Throw(m_path, "cannot get its mode");
    }
    const bool isOurs = owner.user == ::geteuid() && owner.group == ::getegid();
    if (isOurs)
    {
        return;
    }
    if (::geteuid() != 0)
    {
        Admit(owner);
    }
    else if (::chown(m_path.c_str(), owner.user, owner.group) != 0)
    {
        Throw(m_path, "cannot be given to its user and group");
    }
}

/** Without the right to give the socket away, it stays ours and its access list admits the user and the group. */
void ListeningSocket::Admit(const SocketOwner& owner) const
{
    const std::string entries = SFormat("u::rw,g::rw,o::-,m::rw,u:%u:rw,g:%u:rw", owner.user, owner.group);
    const std::unique_ptr<std::remove_pointer_t<acl_t>, int (*)(void*)> list(acl_from_text(entries.c_str()), acl_free);
    if (!list || acl_set_file(m_path.c_str(), ACL_TYPE_ACCESS, list.get()) != 0)
    {
        Throw(m_path, "cannot be opened to its user and group");
    }
}

} // namespace VtxQel

#include "apps/PeerAccess.h"

#include "apps/AppsException.h"
#include "common/SFormat.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

/** Enough for one entry of the user or group database, a group with a thousand members included. */
constexpr std::size_t entryBytes = 65536;

/** Also what is looked up by name may be given as a number. */
std::optional<unsigned> NumberIn(const std::string& name)
{
    const auto isDigit = [](char character) { return character >= '0' && character <= '9'; };
    if (name.size() > 9 || !std::all_of(name.begin(), name.end(), isDigit))
    {
        return std::nullopt;
    }
    return static_cast<unsigned>(std::stoul(name));
}

uid_t UserId(const std::string& name)
{
    if (name.empty())
    {
        return ::geteuid();
    }
    std::vector<char> buffer(entryBytes);
    passwd entry = {};
    passwd* found = nullptr;
    if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
    {
        return entry.pw_uid;
    }
    if (const auto number = NumberIn(name))
    {
        return *number;
    }
    throw AppsException(SFormat("this host has no user \"%s\"", name.c_str()));
}

gid_t GroupId(const std::string& name)
{
    if (name.empty())
    {
        return ::getegid();
    }
    std::vector<char> buffer(entryBytes);
    group entry = {};
    group* found = nullptr;
    if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
    {
        return entry.gr_gid;
    }
    if (const auto number = NumberIn(name))
    {
        return *number;
    }
    throw AppsException(SFormat("this host has no group \"%s\"", name.c_str()));
}

bool IsMember(uid_t user, gid_t primary, gid_t wanted)
{
    std::vector<char> buffer(entryBytes);
    passwd entry = {};
    passwd* found = nullptr;
    if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    {
        return false;
    }
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgrouplist(entry.pw_name, primary, groups.data(), &count) < 0)
    {
        groups.resize(static_cast<std::size_t>(count));
        ::getgrouplist(entry.pw_name, primary, groups.data(), &count);
    }
    groups.resize(std::min(groups.size(), static_cast<std::size_t>(std::max(count, 0))));
    return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

} // namespace

std::optional<Peer> PeerOf(int socket)
{
    ucred credentials = {};
    socklen_t length = sizeof(credentials);
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
    {
        return std::nullopt;
    }
    return Peer{credentials.pid, credentials.uid, credentials.gid};
}

SocketOwner OwnerOf(const ApplicationSettings& settings)
{
    return {UserId(settings.user), GroupId(settings.group)};
}

bool MayConnect(const Peer& peer, const SocketOwner& owner)
{
    return peer.user == 0 || peer.user == ::geteuid() || peer.user == owner.user || peer.group == owner.group ||
           IsMember(peer.user, peer.group, owner.group);
}

} // namespace VtxQel

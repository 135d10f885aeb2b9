#pragma once

#include "apps/ApplicationSettings.h"

#include <optional>
#include <string>

#include <sys/types.h>

namespace VtxQel
{

/** Who is at the other end of a local socket, by the kernel's word. */
struct Peer
{
    pid_t process = 0;
    uid_t user = 0;
    gid_t group = 0;
};

/** The peer of a connected socket; empty when the kernel does not tell. */
std::optional<Peer> PeerOf(int socket);

/** Who owns an application's socket and may therefore connect to it. */
struct SocketOwner
{
    uid_t user = 0;
    gid_t group = 0;

    bool operator==(const SocketOwner&) const = default;
};

/**
 * The ids of the user and group of the settings, the agent's own for empty names.
 * @throws QelException naming a user or group that this host does not know.
 */
SocketOwner OwnerOf(const ApplicationSettings& settings);

/** Whether the peer is root, the agent's user, the owner, or in the owner's group (also by membership). */
bool MayConnect(const Peer& peer, const SocketOwner& owner);

} // namespace VtxQel

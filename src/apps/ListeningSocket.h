#pragma once

#include "apps/PeerAccess.h"

#include <string>

#include <sys/types.h>

namespace VtxQel
{

/**
 * ListeningSocket is a listening Unix socket at a path, non-blocking, of mode 0660 with an owner; or with an access
 * list that admits the owner, when this process is not root.
 *
 * A file left behind by a process that is gone is replaced. The file is removed with the object, unless somebody has
 * put another one there. One thread at a time.
 */
class ListeningSocket
{
  public:
    /** @throws AppsException naming the path and the cause, for example that another process serves it. */
    ListeningSocket(const std::string& path, const SocketOwner& owner);
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    int Descriptor() const { return m_descriptor; }
    const std::string& Path() const { return m_path; }

  private:
    void Bind();
    void RemoveStale() const;
    void SetAccess(const SocketOwner& owner) const;
    void Admit(const SocketOwner& owner) const;

    const std::string m_path;
    int m_descriptor = -1;
    /** The file's, to know it again. */
    ino_t m_inode = 0;
};

} // namespace VtxQel

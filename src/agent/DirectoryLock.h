#pragma once

#include <string>

namespace VtxQel
{

/**
 * DirectoryLock keeps a second agent away from a directory: two of them would undo each other's journal and sockets.
 *
 * A lock of the kernel that ends with the process, however that ends.
 */
class DirectoryLock
{
  public:
    /**
     * Creates the directory when it is missing. What cannot be opened is not locked: those who write there say so.
     * @throws std::runtime_error when another process has the lock.
     */
    explicit DirectoryLock(const std::string& directory);
    ~DirectoryLock();
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

  private:
    int m_descriptor = -1;
};

} // namespace VtxQel

#include "agent/DirectoryLock.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace VtxQel
{

DirectoryLock::DirectoryLock(const std::string& directory)
{
    std::error_code failed;
    std::filesystem::create_directories(directory, failed);
    // The directory itself: a disk that is full or read-only can be locked, too.
    m_descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_descriptor >= 0 && ::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0)
    {
        ::close(m_descriptor);
        throw std::runtime_error(
            directory + " is used by another qel-agent: stop it, or give this one directories of its own " +
            "(agent.state_directory, agent.runtime_directory)");
    }
}

DirectoryLock::~DirectoryLock()
{
    if (m_descriptor >= 0)
    {
        ::close(m_descriptor);
    }
}

} // namespace VtxQel

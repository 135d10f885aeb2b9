#pragma once

#include "Require.h"

#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace VtxQel::Fuzz
{

/** A file that exists in memory only, with a name under which it can be opened while this lives. */
class MemoryFile
{
  public:
    MemoryFile() : m_descriptor(memfd_create("fuzz", MFD_CLOEXEC))
    {
        Require(m_descriptor >= 0, "there is a file in memory");
    }
    ~MemoryFile() { close(m_descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void Write(const std::string& content)
    {
        const bool written =
            ftruncate(m_descriptor, 0) == 0 &&
            pwrite(m_descriptor, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size());
        Require(written, "the file in memory takes the input");
    }
    std::string Name() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

  private:
    const int m_descriptor;
};

} // namespace VtxQel::Fuzz

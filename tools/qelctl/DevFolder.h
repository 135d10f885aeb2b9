#pragma once

#include <string>

namespace VtxQel
{

/**
 * DevFolder is where `qelctl dev` has everything: a new folder that goes with it, or one to be kept, in which what is
 * there from an earlier run is used again. Only its owner may look into it. For one thread.
 */
class DevFolder
{
  public:
    /**
     * @param kept the folder to be kept; empty for a new one.
     * @throws Failure when it cannot be made or another process uses it, UsageError when its name is of no use.
     */
    explicit DevFolder(const std::string& kept);
    ~DevFolder();
    DevFolder(const DevFolder&) = delete;
    DevFolder& operator=(const DevFolder&) = delete;

    bool IsKept() const { return m_kept; }
    std::string Path(const std::string& name) const { return m_path + "/" + name; }
    /** Makes the folder of that name, and those above it. @return its path. */
    std::string Make(const std::string& name) const;
    /** Writes the file, for its owner's eyes. @return its path. @throws Failure */
    std::string Write(const std::string& name, const std::string& content) const;
    /** As Write(), unless it is there. */
    std::string WriteOnce(const std::string& name, const std::string& content) const;

  private:
    const bool m_kept;
    const std::string m_path;
    int m_lock = -1;
};

} // namespace VtxQel

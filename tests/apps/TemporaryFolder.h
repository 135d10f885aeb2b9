#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace VtxQel
{

/** A folder of its own that goes with the object. */
class TemporaryFolder
{
  public:
    TemporaryFolder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-apps-XXXXXX").string();
        m_path = ::mkdtemp(pattern.data());
        std::filesystem::permissions(m_path, std::filesystem::perms(0755));
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& Path() const { return m_path; }

  private:
    std::string m_path;
};

} // namespace VtxQel

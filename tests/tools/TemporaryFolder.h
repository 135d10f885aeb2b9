#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace VtxQel
{

/** A folder of the test's own that goes with it. */
class TemporaryFolder
{
  public:
    TemporaryFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "qelctl-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
        {
            throw std::runtime_error("no temporary folder");
        }
        m_path = name;
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string Path(const std::string& name) const { return (m_path / name).string(); }

    /** Writes a file and returns its path. */
    std::string Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(Path(name), std::ios::binary) << text;
        return Path(name);
    }

  private:
    std::filesystem::path m_path;
};

} // namespace VtxQel

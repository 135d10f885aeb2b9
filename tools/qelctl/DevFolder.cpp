#include "DevFolder.h"

#include "Failure.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

namespace fs = std::filesystem;

// RabbitMQ's start scripts take no others.
void CheckName(const std::string& path, const std::string& from)
{
    const char* const allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-/+";
    if (path.find_first_not_of(allowed) != std::string::npos)
    {
        throw UsageError(
            from + " " + path + ": RabbitMQ takes only letters, digits and ._-+ in the names of folders: give another");
    }
}

std::string NewFolder()
{
    std::error_code error;
    std::string path = fs::temp_directory_path(error).string() + "/qel-dev-XXXXXX";
    CheckName(path, "TMPDIR");
    if (error || mkdtemp(path.data()) == nullptr)
    {
        throw Failure(
            "no folder can be made in the one for temporary files: " +
            (error ? error.message() : std::string(std::strerror(errno))) + ": set TMPDIR, or give --keep DIR");
    }
    return path;
}

std::string KeptFolder(const std::string& name)
{
    std::string path = fs::absolute(name).lexically_normal().string();
    CheckName(path, "--keep");
    std::error_code error;
    fs::create_directories(path, error);
    if (error || chmod(path.c_str(), S_IRWXU) != 0)
    {
        throw Failure(
            "--keep " + path + " cannot be made: " + (error ? error.message() : std::string(std::strerror(errno))));
    }
    return path;
}

} // namespace

DevFolder::DevFolder(const std::string& kept)
    : m_kept(!kept.empty()), m_path(m_kept ? KeptFolder(kept) : NewFolder()),
      m_lock(open(m_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    if (m_lock < 0 || flock(m_lock, LOCK_EX | LOCK_NB) != 0)
    {
        const std::string why = errno == EWOULDBLOCK ? "another qelctl dev uses it: end that, or give another folder"
                                                     : std::strerror(errno);
        close(m_lock);
        throw Failure("the folder " + m_path + " cannot be used: " + why);
    }
}

DevFolder::~DevFolder()
{
    if (!m_kept)
    {
        std::error_code error;
        fs::remove_all(m_path, error);
        if (error)
        {
            std::cerr << "qelctl: " << m_path << " is left behind: " << error.message() << std::endl;
        }
    }
    close(m_lock);
}

std::string DevFolder::Make(const std::string& name) const
{
    std::error_code error;
    fs::create_directories(Path(name), error);
    if (error)
    {
        throw Failure("the folder " + Path(name) + " cannot be made: " + error.message());
    }
    return Path(name);
}

std::string DevFolder::Write(const std::string& name, const std::string& content) const
{
    std::ofstream file(Path(name), std::ios::trunc);
    if (!file || chmod(Path(name).c_str(), S_IRUSR | S_IWUSR) != 0 || !(file << content << std::flush))
    {
        throw Failure("the file " + Path(name) + " cannot be written: " + std::strerror(errno));
    }
    return Path(name);
}

std::string DevFolder::WriteOnce(const std::string& name, const std::string& content) const
{
    return fs::exists(Path(name)) ? Path(name) : Write(name, content);
}

} // namespace VtxQel

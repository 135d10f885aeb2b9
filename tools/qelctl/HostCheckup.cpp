#include "HostCheckup.h"

#include "apps/PeerAccess.h"
#include "common/QelException.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

constexpr std::size_t LONGEST_SOCKET_PATH = 107;
constexpr mode_t OTHERS_WRITE = S_IWGRP | S_IWOTH;
constexpr std::uint64_t MEBIBYTE = 1048576;
constexpr std::uint64_t LEAST_FREE = 16 * MEBIBYTE;
constexpr std::uint64_t COMFORTABLY_FREE = 128 * MEBIBYTE;
/** A file's time may be a little ahead, when a network file system keeps it. */
constexpr std::time_t TIME_TOLERANCE = 60;

std::string UserName(uid_t user)
{
    const passwd* const entry = ::getpwuid(user);
    return entry == nullptr ? "user " + std::to_string(user) : entry->pw_name;
}

bool IsInGroup(uid_t user, gid_t group)
{
    const passwd* const entry = ::getpwuid(user);
    if (entry == nullptr)
    {
        return false;
    }
    constexpr int mostGroups = 65536;
    std::vector<gid_t> groups(mostGroups);
    int count = mostGroups;
    if (::getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0)
    {
        return false;
    }
    return std::find(groups.begin(), groups.begin() + count, group) != groups.begin() + count;
}

std::optional<struct stat> StatusOf(const std::string& path)
{
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

std::string SocketOf(const AgentConfig& config, const std::string& application)
{
    return (std::filesystem::path(config.runtimeDirectory) / "apps" / (application + ".sock")).string();
}

} // namespace

HostCheckup::HostCheckup(const ReadConfiguration& read, Findings& findings) : m_read(read), m_findings(findings)
{
    if (const auto status = StatusOf(read.config.stateDirectory))
    {
        m_agentUser = status->st_uid;
    }
}

void HostCheckup::CheckDirectories(bool running)
{
    const AgentConfig& config = m_read.config;
    CheckDirectory(
        config.stateDirectory, "let systemd make it (StateDirectory=), or make it for the agent's user with mode 0700");
    if (!running && !StatusOf(config.runtimeDirectory))
    {
        m_findings.Warn(
            "directories", config.runtimeDirectory + " is not there",
            "start the agent by systemd, which makes it (RuntimeDirectory=), or make it for the agent's user");
    }
    else
    {
        CheckDirectory(config.runtimeDirectory, "make it for the agent's user");
    }
    std::string longest = (std::filesystem::path(config.runtimeDirectory) / "admin.sock").string();
    for (const ApplicationSettings& application : m_read.dropIns.applications)
    {
        const std::string path = SocketOf(config, application.name);
        longest = path.size() > longest.size() ? path : longest;
    }
    if (longest.size() > LONGEST_SOCKET_PATH)
    {
        m_findings.Fail(
            "directories",
            "the path of the socket " + longest + " has more than the " + std::to_string(LONGEST_SOCKET_PATH) +
                " bytes that the system allows",
            "a shorter agent.runtime_directory");
    }
}

void HostCheckup::CheckDirectory(const std::string& path, const std::string& cureOfAbsence)
{
    const auto status = StatusOf(path);
    if (!status || !S_ISDIR(status->st_mode))
    {
        const std::string why = status ? "it is no directory" : std::strerror(errno);
        m_findings.Fail("directories", path + " cannot be used: " + why, cureOfAbsence);
    }
    else if (m_agentUser && status->st_uid != *m_agentUser)
    {
        m_findings.Fail(
            "directories",
            path + " belongs to " + UserName(status->st_uid) + ", the agent's state to " + UserName(*m_agentUser),
            "chown " + UserName(*m_agentUser) + " " + path);
    }
    else if ((status->st_mode & OTHERS_WRITE) != 0)
    {
        m_findings.Fail("directories", "others may write to " + path, "chmod go-w " + path);
    }
    else
    {
        m_findings.Ok("directories", path + " belongs to " + UserName(status->st_uid));
    }
}

void HostCheckup::CheckFiles()
{
    const AgentConfig& config = m_read.config;
    CheckReadable(m_read.file);
    for (const ApplicationSettings& application : m_read.dropIns.applications)
    {
        CheckReadable((std::filesystem::path(config.applicationsDirectory) / (application.name + ".toml")).string());
    }
    const TlsFiles& tls = config.broker.link.tls;
    for (const std::string* secret : {&config.passwordFile, &tls.caFile, &tls.certificateFile, &tls.keyFile})
    {
        if (!secret->empty())
        {
            CheckReadable(*secret);
        }
    }
}

void HostCheckup::CheckReadable(const std::string& path)
{
    const auto status = StatusOf(path);
    if (!status)
    {
        m_findings.Fail("files", path + " is not there: " + std::strerror(errno), "put it there");
    }
    else if (!MayAgentRead(path))
    {
        m_findings.Fail(
            "files", UserName(*m_agentUser) + ", the agent's user, may not read " + path,
            "give it the group of that user and mode 0640");
    }
    else if ((status->st_mode & S_IWOTH) != 0)
    {
        m_findings.Fail("files", "everybody may write to " + path, "chmod o-w " + path);
    }
    else
    {
        m_findings.Ok("files", path + " can be read by the agent");
    }
}

bool HostCheckup::MayAgentRead(const std::string& path) const
{
    const auto status = StatusOf(path);
    if (!m_agentUser || *m_agentUser == 0 || !status)
    {
        return true;
    }
    const mode_t bit = status->st_uid == *m_agentUser            ? S_IRUSR
                       : IsInGroup(*m_agentUser, status->st_gid) ? S_IRGRP
                                                                 : S_IROTH;
    return (status->st_mode & bit) != 0;
}

void HostCheckup::CheckSockets()
{
    std::vector<std::string> paths{(std::filesystem::path(m_read.config.runtimeDirectory) / "admin.sock").string()};
    for (const ApplicationSettings& application : m_read.dropIns.applications)
    {
        paths.push_back(SocketOf(m_read.config, application.name));
    }
    for (const std::string& path : paths)
    {
        const auto status = StatusOf(path);
        if (!status || !S_ISSOCK(status->st_mode))
        {
            m_findings.Fail(
                "sockets", "the agent runs, but there is no socket " + path,
                "reload the agent (systemctl reload qel-agent), and read its log if that does not help");
        }
        else if ((status->st_mode & S_IRWXO) != 0)
        {
            m_findings.Fail("sockets", "everybody may use the socket " + path, "chmod o= " + path);
        }
        else
        {
            m_findings.Ok("sockets", path + " belongs to " + UserName(status->st_uid));
        }
    }
}

void HostCheckup::CheckDisk()
{
    struct statvfs room = {};
    const std::string& path = m_read.config.stateDirectory;
    if (::statvfs(path.c_str(), &room) != 0)
    {
        m_findings.Fail("disk", path + " cannot be looked at: " + std::strerror(errno), "see the state directory");
        return;
    }
    const std::uint64_t free = std::uint64_t{room.f_bavail} * room.f_frsize;
    const std::string text = std::to_string(free / MEBIBYTE) + " MiB are free for " + path;
    const std::string cure = "make room: without it the journal of what is bound on the broker cannot be kept";
    const bool noFiles = room.f_files != 0 && room.f_favail == 0;
    if (free < LEAST_FREE || noFiles || (room.f_flag & ST_RDONLY) != 0)
    {
        m_findings.Fail(
            "disk",
            noFiles                          ? "no file can be made any more in " + path
            : (room.f_flag & ST_RDONLY) != 0 ? path + " cannot be written to: it is read-only"
                                             : text,
            cure);
    }
    else if (free < COMFORTABLY_FREE)
    {
        m_findings.Warn("disk", text, cure);
    }
    else
    {
        m_findings.Ok("disk", text);
    }
}

void HostCheckup::CheckClock()
{
    const std::string cure = "let systemd-timesyncd or chrony set it: certificates and the times in logs depend on it";
    const auto journal = StatusOf((std::filesystem::path(m_read.config.stateDirectory) / "journal.sqlite").string());
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    timex clock = {};
    if (journal && journal->st_mtime > now + TIME_TOLERANCE)
    {
        m_findings.Fail(
            "clock",
            "the journal was written " + std::to_string(journal->st_mtime - now) +
                " s in the future: the clock was set back",
            cure);
    }
    else if (::adjtimex(&clock) < 0)
    {
        m_findings.Warn("clock", std::string("the kernel does not tell: ") + std::strerror(errno), cure);
    }
    else if ((static_cast<unsigned>(clock.status) & STA_UNSYNC) != 0)
    {
        m_findings.Warn("clock", "nobody keeps the host's clock right, as far as the kernel knows", cure);
    }
    else
    {
        constexpr long microsecondsInOne = 1000;
        m_findings.Ok(
            "clock", "kept right, to " + std::to_string(clock.maxerror / microsecondsInOne) + " ms at the worst");
    }
}

} // namespace VtxQel

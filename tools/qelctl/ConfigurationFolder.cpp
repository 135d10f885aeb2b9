#include "ConfigurationFolder.h"

#include "Failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

namespace fs = std::filesystem;

constexpr std::uint32_t worthALook =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CREATE | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t complete = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr const char* ending = ".json";

bool IsHidden(const std::string& name)
{
    return name.empty() || name.front() == '.';
}

} // namespace

ConfigurationFolder::ConfigurationFolder(std::string path)
    : m_path(std::move(path)), m_events(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      m_wakeUp(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    if (Watch(m_path) < 0)
    {
        throw Failure(
            "there is no folder " + m_path + " to watch: make it, with a folder for each agent and in it APP.json");
    }
}

ConfigurationFolder::~ConfigurationFolder()
{
    close(m_events);
    close(m_wakeUp);
}

std::vector<ConfigurationChange> ConfigurationFolder::Take()
{
    bool lost = false;
    std::set<Name> changed = ReadEvents(lost);
    std::map<std::string, int> agents = WatchAgents();
    std::set<Name> files;
    for (const auto& [agent, watch] : agents)
    {
        const auto known = m_agents.find(agent);
        const bool isNew = lost || known == m_agents.end() || known->second != watch;
        for (const std::string& file : List(agent))
        {
            const Name name(agent, file);
            if (isNew)
            {
                changed.insert(name);
            }
            // One that is neither known nor complete is being written: its end will be told.
            if (changed.contains(name) || m_files.contains(name))
            {
                files.insert(name);
            }
        }
    }
    m_agents = std::move(agents);
    const std::set<Name> before = std::exchange(m_files, std::move(files));
    std::set<Name> candidates = before;
    candidates.merge(std::set<Name>(changed));
    std::vector<ConfigurationChange> changes;
    changes.reserve(candidates.size());
    for (const Name& name : candidates)
    {
        const bool isThere = m_files.contains(name);
        if (isThere ? changed.contains(name) : before.contains(name))
        {
            const fs::path file = fs::path(m_path) / name.first / name.second;
            changes.push_back({name.first, file.stem().string(), file.string(), !isThere});
        }
    }
    return changes;
}

// The agents' folders, watched before they are listed, so that nothing gets in unseen between the two.
std::map<std::string, int> ConfigurationFolder::WatchAgents() const
{
    std::error_code error;
    fs::directory_iterator entries(m_path, error);
    if (error)
    {
        throw Failure("the folder " + m_path + " cannot be read any more: " + error.message());
    }
    std::map<std::string, int> agents;
    for (const fs::directory_entry& entry : entries)
    {
        const std::string agent = entry.path().filename().string();
        const int watch = IsHidden(agent) ? -1 : Watch(entry.path().string());
        if (watch >= 0)
        {
            agents.emplace(agent, watch);
        }
    }
    return agents;
}

bool ConfigurationFolder::Wait(std::optional<std::chrono::milliseconds> atMost)
{
    std::array<pollfd, 2> files{{{m_events, POLLIN, 0}, {m_wakeUp, POLLIN, 0}}};
    const int ready = poll(files.data(), files.size(), atMost ? static_cast<int>(atMost->count()) : -1);
    eventfd_t count = 0;
    eventfd_read(m_wakeUp, &count);
    return ready != 0;
}

void ConfigurationFolder::Wake()
{
    eventfd_write(m_wakeUp, 1);
}

// The files that are complete since the last time.
std::set<ConfigurationFolder::Name> ConfigurationFolder::ReadEvents(bool& lost)
{
    std::set<Name> names;
    alignas(inotify_event) std::array<char, 65536> buffer;
    for (ssize_t size = 0; (size = read(m_events, buffer.data(), buffer.size())) > 0;)
    {
        for (const char* at = buffer.data(); at < buffer.data() + size;)
        {
            const auto* const event = reinterpret_cast<const inotify_event*>(at);
            at += sizeof(inotify_event) + event->len;
            lost = lost || (event->mask & IN_Q_OVERFLOW) != 0;
            const auto agent = std::find_if(
                m_agents.begin(), m_agents.end(), [event](const auto& one) { return one.second == event->wd; });
            if (agent != m_agents.end() && (event->mask & complete) != 0 && event->len > 0)
            {
                names.emplace(agent->first, event->name);
            }
        }
    }
    return names;
}

// The same folder has the same watch, however often it is asked for; negative when it is not a folder or gone.
int ConfigurationFolder::Watch(const std::string& path) const
{
    const int watch = inotify_add_watch(m_events, path.c_str(), worthALook | IN_ONLYDIR);
    if (watch < 0 && errno != ENOENT && errno != ENOTDIR)
    {
        throw Failure(
            "the folder " + path + " cannot be watched: " + std::strerror(errno) +
            ": it has to be readable, and fs.inotify.max_user_watches and max_user_instances large enough");
    }
    return watch;
}

std::set<std::string> ConfigurationFolder::List(const std::string& agent) const
{
    std::set<std::string> names;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(fs::path(m_path) / agent, ignored))
    {
        const std::string name = entry.path().filename().string();
        if (!IsHidden(name) && entry.path().extension() == ending && entry.is_regular_file(ignored))
        {
            names.insert(name);
        }
    }
    return names;
}

} // namespace VtxQel

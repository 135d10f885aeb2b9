#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{

/** A file that says what an application of an agent gets: FOLDER/AGENT/APP.json. */
struct ConfigurationChange
{
    std::string agent;
    std::string application;
    std::string file;
    /** It is not there any more. */
    bool removed = false;
};

/**
 * ConfigurationFolder watches a folder of configurations: FOLDER/AGENT/APP.json. A file counts when it has been written
 * and closed or moved there, as editors do; hidden ones and those with other endings are for others.
 *
 * For one thread, but for Wake(), which any may call. The events only say where to look: what is there is always read
 * from the folder, so that folders made, moved or removed, and events lost, come out right.
 */
class ConfigurationFolder
{
  public:
    /** @throws Failure when it cannot be watched. */
    explicit ConfigurationFolder(std::string path);
    ~ConfigurationFolder();
    ConfigurationFolder(const ConfigurationFolder&) = delete;
    ConfigurationFolder& operator=(const ConfigurationFolder&) = delete;

    /** What has changed since the last call, by name; at first everything. @throws Failure when the folder is gone. */
    std::vector<ConfigurationChange> Take();
    /** Waits for a change or Wake(), at most so long. @return false when it has only waited. */
    bool Wait(std::optional<std::chrono::milliseconds> atMost);
    /** Ends the wait that is going on, or else the next one. */
    void Wake();

  private:
    /** AGENT/APP.json. */
    using Name = std::pair<std::string, std::string>;

    std::set<Name> ReadEvents(bool& lost);
    std::map<std::string, int> WatchAgents() const;
    int Watch(const std::string& path) const;
    std::set<std::string> List(const std::string& agent) const;

    const std::string m_path;
    const int m_events;
    const int m_wakeUp;
    /** The agents' folders with their watches. */
    std::map<std::string, int> m_agents;
    std::set<Name> m_files;
};

} // namespace VtxQel

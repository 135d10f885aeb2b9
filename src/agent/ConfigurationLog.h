#pragma once

#include "admin/AgentStatus.h"
#include "broker/Journal.h"

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

/** A configuration while it is carried out. */
struct ConfigurationRun
{
    std::string application;
    std::string hash;
    std::chrono::steady_clock::time_point began;
};

/**
 * ConfigurationLog knows which configuration each application has, by the hash of its body, and what became of the last
 * ones.
 *
 * The hashes outlive the process in a file, each with a hash of the routes that the configuration brought: after a
 * restart it is believed only when the routes that the journal puts back are the same. Any thread may call.
 */
class ConfigurationLog
{
  public:
    /** @param file may be missing or damaged: then the hashes of what an earlier process did are not known. */
    explicit ConfigurationLog(std::string file);

    /** The application has these routes from an earlier process. */
    void Restored(const std::string& application, const std::vector<RouteRecord>& routes);
    /** A configuration begins to be carried out. @param isKnown whether there is such an application. */
    ConfigurationRun Begin(const std::string& application, const std::string& hash, bool isKnown);
    /** It is in force now, with these routes. */
    void Applied(const ConfigurationRun& run, const std::vector<RouteRecord>& routes);
    /** It could not be carried out. @param routesAreGone what was in force before is not in force any more. */
    void Failed(const ConfigurationRun& run, const std::string& error, bool isKnown, bool routesAreGone);
    /** The application is gone. */
    void Forget(const std::string& application);

    ConfigurationTotals Totals() const;
    /**
     * What is known here of an application's configuration: hash, time, duration, last failure. The state and what goes
     * with it are the subscriptions'. @param state chooses the hash: of what is applied, being applied or failed.
     */
    ConfigurationFigures Of(const std::string& application, const std::string& state) const;

  private:
    struct InForce
    {
        std::string hash;
        std::string routes;
        WallTime at;
        std::optional<Seconds> duration;
    };
    struct Known
    {
        std::optional<InForce> inForce;
        std::string coming;
        std::optional<ConfigurationFailure> lastFailure;
    };

    void Load();
    void Save();
    void Remember(ConfigurationEvent event);

    const std::string m_file;
    mutable std::mutex m_mutex;
    /** Guarded by m_mutex, like everything below. */
    std::map<std::string, Known> m_known;
    std::map<std::string, InForce> m_loaded;
    std::deque<ConfigurationEvent> m_recent;
    LatencyHistogram m_durations;
    std::uint64_t m_applied = 0;
    std::uint64_t m_failed = 0;
    bool m_saveFailed = false;
};

} // namespace VtxQel

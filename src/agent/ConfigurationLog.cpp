#include "agent/ConfigurationLog.h"

#include "agent/ConfigurationHash.h"
#include "agent/PingReplyBody.h"
#include "logging/Log.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

namespace VtxQel
{

namespace
{

using nlohmann::json;

constexpr std::size_t MOST_RECENT = 20;

std::int64_t ToMilliseconds(WallTime time)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

} // namespace

ConfigurationLog::ConfigurationLog(std::string file) : m_file(std::move(file))
{
    Load();
}

void ConfigurationLog::Load()
{
    std::ifstream stream(m_file);
    const json all = json::parse(stream, nullptr, false);
    if (!all.is_object())
    {
        return;
    }
    for (const auto& [application, saved] : all.items())
    {
        try
        {
            const WallTime at{std::chrono::milliseconds(saved.at("at").get<std::int64_t>())};
            m_loaded[application] = {saved.at("hash"), saved.at("routes"), at, std::nullopt};
        }
        catch (const json::exception&)
        {
            // Not one of ours: its hash is not known, which is what is said of it.
        }
    }
}

void ConfigurationLog::Save()
{
    json all = json::object();
    for (const auto& [application, known] : m_known)
    {
        if (known.inForce && !known.inForce->hash.empty())
        {
            all[application] = {
                {"hash", known.inForce->hash},
                {"routes", known.inForce->routes},
                {"at", ToMilliseconds(known.inForce->at)}};
        }
    }
    const std::string draft = m_file + ".new";
    std::ofstream stream(draft, std::ios::trunc);
    stream << all.dump(1) << std::endl;
    std::error_code failed;
    if (stream)
    {
        std::filesystem::rename(draft, m_file, failed);
    }
    const bool saved = stream && !failed;
    if (!saved && !m_saveFailed)
    {
        QEL_LOG(
            vtx::LevelWarning, "the configurations' hashes will not be known after a restart: %s takes no data",
            m_file.c_str());
    }
    m_saveFailed = !saved;
}

void ConfigurationLog::Restored(const std::string& application, const std::vector<RouteRecord>& routes)
{
    const std::lock_guard lock(m_mutex);
    const std::string hash = RoutesHash(routes);
    const auto saved = m_loaded.find(application);
    if (saved != m_loaded.end() && saved->second.routes == hash)
    {
        m_known[application].inForce = saved->second;
    }
}

ConfigurationRun ConfigurationLog::Begin(const std::string& application, const std::string& hash, bool isKnown)
{
    const std::lock_guard lock(m_mutex);
    if (isKnown)
    {
        // Names that others make up must not fill the memory.
        m_known[application].coming = hash;
    }
    return {application, hash, std::chrono::steady_clock::now()};
}

void ConfigurationLog::Applied(const ConfigurationRun& run, const std::vector<RouteRecord>& routes)
{
    const auto duration = std::chrono::steady_clock::now() - run.began;
    const WallTime now = std::chrono::system_clock::now();
    const auto isTopic = [](const RouteRecord& route) { return route.kind == RouteKind::topic; };
    const auto topics = static_cast<std::size_t>(std::count_if(routes.begin(), routes.end(), isTopic));
    const std::string routesHash = RoutesHash(routes);

    const std::lock_guard lock(m_mutex);
    m_known[run.application] = {InForce{run.hash, routesHash, now, Seconds(duration)}, "", std::nullopt};
    ++m_applied;
    m_durations.Observe(duration);
    Remember({run.application, now, true, run.hash, topics, routes.size() - topics, Seconds(duration), ""});
    Save();
}

void ConfigurationLog::Failed(const ConfigurationRun& run, const std::string& error, bool isKnown, bool routesAreGone)
{
    const auto duration = std::chrono::steady_clock::now() - run.began;
    const WallTime now = std::chrono::system_clock::now();
    const std::string text = error.substr(0, LONGEST_ERROR_TEXT);

    const std::lock_guard lock(m_mutex);
    ++m_failed;
    m_durations.Observe(duration);
    Remember({run.application, now, false, run.hash, 0, 0, Seconds(duration), text});
    if (!isKnown)
    {
        return;
    }
    Known& known = m_known[run.application];
    known.coming.clear();
    known.lastFailure = ConfigurationFailure{run.hash, text, now};
    if (routesAreGone && std::exchange(known.inForce, std::nullopt))
    {
        Save();
    }
}

void ConfigurationLog::Forget(const std::string& application)
{
    const std::lock_guard lock(m_mutex);
    m_loaded.erase(application);
    if (m_known.erase(application) != 0)
    {
        Save();
    }
}

ConfigurationTotals ConfigurationLog::Totals() const
{
    const std::lock_guard lock(m_mutex);
    return {m_applied, m_failed, m_durations.Read(), {m_recent.begin(), m_recent.end()}};
}

ConfigurationFigures ConfigurationLog::Of(const std::string& application, const std::string& state) const
{
    const std::lock_guard lock(m_mutex);
    ConfigurationFigures figures;
    figures.state = state;
    const auto place = m_known.find(application);
    if (place == m_known.end())
    {
        return figures;
    }
    const Known& known = place->second;
    figures.lastFailure = known.lastFailure;
    if (state == "applying")
    {
        figures.hash = known.coming;
    }
    else if (state == "failed" && known.lastFailure)
    {
        figures.hash = known.lastFailure->hash;
        figures.at = known.lastFailure->at;
    }
    else if (state == "applied" && known.inForce)
    {
        figures.hash = known.inForce->hash;
        figures.at = known.inForce->at;
        figures.duration = known.inForce->duration;
    }
    return figures;
}

void ConfigurationLog::Remember(ConfigurationEvent event)
{
    m_recent.push_front(std::move(event));
    if (m_recent.size() > MOST_RECENT)
    {
        m_recent.pop_back();
    }
}

} // namespace VtxQel

#include "Fleet.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

namespace VtxQel
{

namespace
{

/** Ending an agent waits for its broker, so it takes many hands, which do nothing meanwhile. */
constexpr std::size_t STOPPERS = 64;

} // namespace

Fleet::Fleet(const std::string& folder, std::size_t topics)
{
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        if (entry.path().extension() == ".toml")
        {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    for (const std::string& file : files)
    {
        m_agents.push_back(std::make_unique<FleetAgent>(LoadAgentConfig(file), topics, m_timers));
    }
}

Fleet::~Fleet()
{
    Stop();
}

void Fleet::Start(std::chrono::milliseconds within)
{
    const auto began = std::chrono::steady_clock::now();
    for (std::size_t index = 0; index < m_agents.size(); ++index)
    {
        std::this_thread::sleep_until(began + within * index / m_agents.size());
        m_agents[index]->Start();
    }
}

void Fleet::Stop()
{
    m_timers.Stop();
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> stoppers;
    for (std::size_t count = 0; count < std::min(STOPPERS, m_agents.size()); ++count)
    {
        stoppers.emplace_back(
            [this, &next]
            {
                for (std::size_t index = next++; index < m_agents.size(); index = next++)
                {
                    m_agents[index]->Stop();
                }
            });
    }
    for (std::thread& stopper : stoppers)
    {
        stopper.join();
    }
}

std::vector<FleetAgentFigures> Fleet::Figures() const
{
    std::vector<FleetAgentFigures> figures;
    figures.reserve(m_agents.size());
    for (const auto& agent : m_agents)
    {
        figures.push_back(agent->Figures());
    }
    return figures;
}

} // namespace VtxQel

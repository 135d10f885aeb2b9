#pragma once

#include "Command.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace VtxQel
{

class DevFolder;
class PlaneServer;
class PrivateBroker;

/**
 * `qelctl dev APP`: all that an application needs, on this host and for its developer alone: a broker, an agent and a
 * management plane, in a folder of their own. Ends them on SIGINT and SIGTERM, and when one of them has ended.
 */
class DevCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    /** The verb is to end before everything runs. */
    class Stopped
    {
    };

    /** Everything, from the first start to the last end. @throws Stopped */
    void Play(const GlobalOptions& options);
    void StartBroker(const DevFolder& folder, std::unique_ptr<PrivateBroker>& broker);
    std::string WriteAgentFiles(const DevFolder& folder, const PrivateBroker& broker) const;
    void Announce(const GlobalOptions& options, const DevFolder& folder, const PrivateBroker& broker) const;
    /** Until RequestStop(), or `hasEnded` holds and NoticeEnd() says so. */
    void RunPlane(
        const GlobalOptions& options, const DevFolder& folder, const PrivateBroker& broker,
        const std::function<bool()>& hasEnded);

    /**
     * Waits until the condition holds or `hasEnded` does.
     * @return whether it holds. @throws Stopped; Failure when it takes too long, with what `tail` says.
     */
    bool WaitUntil(
        const std::function<bool()>& condition, const std::function<bool()>& hasEnded, const std::string& what,
        const std::function<std::string()>& tail);
    void NoticeEnd();
    void RequestStop();

    std::string m_application;
    std::string m_keep;
    std::string m_agent;
    std::string m_rabbitmq;
    std::uint16_t m_port = 0;
    double m_startTimeout = 60;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex: the threads that wait for signals and for the children use them.
    bool m_stop = false;
    PlaneServer* m_plane = nullptr;
};

} // namespace VtxQel

#pragma once

#include "common/Publisher.h"
#include "common/Scheduler.h"
#include "logging/RepeatedWarnings.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>

namespace VtxQel
{

/** Where sync requests go; off when the routing key is empty. */
struct ManagementAddress
{
    std::string exchange;
    std::string routingKey;
    /** Where the management plane sends its answer: the client queue. */
    std::string replyTo;
};

/**
 * Asks the management plane for applications' configurations: at once, and then again with growing, jittered delays
 * (1 s to 60 s) for as long as the application has none. Any thread may call; nothing blocks.
 */
class ConfigurationRequests
{
  public:
    /** @param lacks whether an application still has no configuration in force. @param scheduler stop it first. */
    ConfigurationRequests(
        ManagementAddress address, Publisher& publisher, Scheduler& scheduler,
        std::function<bool(const std::string& application)> lacks);

    /**
     * Asks at once, whatever is in force, and goes on while there is nothing.
     * @param completion told what became of the request; `refused` when nobody is to be asked.
     */
    void Ask(const std::string& application, PublishCompletion completion = nullptr);
    /** Asks after the next delay: what was sent last could not be carried out. */
    void AskLater(const std::string& application);
    /** The application has its configuration: the next delay is the shortest again. */
    void Satisfied(const std::string& application);

  private:
    void Send(const std::string& application, PublishCompletion completion);
    void Schedule(const std::string& application);

    const ManagementAddress m_address;
    Publisher& m_publisher;
    Scheduler& m_scheduler;
    const std::function<bool(const std::string& application)> m_lacks;
    /** Shared with the publishes that are on their way. */
    const std::shared_ptr<RepeatedWarnings> m_warnings = std::make_shared<RepeatedWarnings>();
    std::mutex m_mutex;
    struct State
    {
        std::uint32_t attempts = 0;
        bool scheduled = false;
    };
    /** Guarded by m_mutex, like the generator. */
    std::map<std::string, State> m_states;
    std::mt19937_64 m_random;
};

} // namespace VtxQel

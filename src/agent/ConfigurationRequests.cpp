#include "agent/ConfigurationRequests.h"

#include "common/MessageTypes.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr std::uint32_t MOST_DOUBLINGS = 6;
constexpr std::chrono::milliseconds LONGEST_DELAY{60000};

} // namespace

ConfigurationRequests::ConfigurationRequests(
    ManagementAddress address, Publisher& publisher, Scheduler& scheduler,
    std::function<bool(const std::string& application)> lacks)
    : m_address(std::move(address)), m_publisher(publisher), m_scheduler(scheduler), m_lacks(std::move(lacks)),
      m_random(std::random_device{}())
{
}

void ConfigurationRequests::Ask(const std::string& application, PublishCompletion completion)
{
    if (m_address.routingKey.empty())
    {
        if (completion)
        {
            completion(PublishResult::refused, "this agent has no management plane to ask (management.routing_key)");
        }
        return;
    }
    Send(application, std::move(completion));
    Schedule(application);
}

void ConfigurationRequests::AskLater(const std::string& application)
{
    if (!m_address.routingKey.empty())
    {
        Schedule(application);
    }
}

void ConfigurationRequests::Satisfied(const std::string& application)
{
    const std::lock_guard lock(m_mutex);
    m_states[application].attempts = 0;
}

void ConfigurationRequests::Send(const std::string& application, PublishCompletion completion)
{
    OutgoingMessage request;
    request.exchange = m_address.exchange;
    request.routingKey = m_address.routingKey;
    request.properties.type = APP_INIT_REQUEST_TYPE;
    request.properties.appId = application;
    request.properties.replyTo = m_address.replyTo;
    request.mandatory = true;
    m_publisher.Publish(
        std::move(request),
        [application, completion = std::move(completion),
         warnings = m_warnings](PublishResult result, const std::string& why)
        {
            if (completion)
            {
                completion(result, why);
            }
            if (result != PublishResult::confirmed)
            {
                warnings->Write("the configuration of application " + application + " could not be asked for: " + why);
            }
        });
}

void ConfigurationRequests::Schedule(const std::string& application)
{
    const std::lock_guard lock(m_mutex);
    State& state = m_states[application];
    if (std::exchange(state.scheduled, true))
    {
        return;
    }
    const auto longest =
        std::min(LONGEST_DELAY, std::chrono::milliseconds(1000) * (1U << std::min(state.attempts++, MOST_DOUBLINGS)));
    std::uniform_int_distribution<std::chrono::milliseconds::rep> delay(longest.count() / 2, longest.count());
    m_scheduler.After(
        std::chrono::milliseconds(delay(m_random)),
        [this, application]
        {
            {
                const std::lock_guard again(m_mutex);
                m_states[application].scheduled = false;
            }
            if (m_lacks(application))
            {
                Ask(application);
            }
        });
}

} // namespace VtxQel

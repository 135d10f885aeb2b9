#include "BrokerTrial.h"

#include <future>
#include <memory>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr std::chrono::milliseconds closeBudget{1000};

} // namespace

BrokerTrial::BrokerTrial(LinkSettings settings) : m_link(std::move(settings), *this) {}

BrokerTrial::~BrokerTrial()
{
    m_link.Stop(closeBudget);
}

BrokerTrial::Login BrokerTrial::Open()
{
    m_link.Start();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_ended; });
    return m_login;
}

PublishResult BrokerTrial::Publish(OutgoingMessage message, std::string& why)
{
    const auto promise = std::make_shared<std::promise<std::pair<PublishResult, std::string>>>();
    auto outcome = promise->get_future();
    m_link.Publish(
        std::move(message),
        [promise](PublishResult result, const std::string& reason) {
            promise->set_value({result, reason});
        });
    auto [result, reason] = outcome.get();
    why = std::move(reason);
    return result;
}

void BrokerTrial::End(Login login, const std::string& why)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!std::exchange(m_ended, true))
    {
        m_login = login;
        m_why = why;
        m_changed.notify_all();
    }
}

} // namespace VtxQel

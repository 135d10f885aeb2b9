#include "PublishRun.h"

#include <algorithm>
#include <iostream>
#include <thread>

namespace VtxQel
{

namespace
{

constexpr std::uint64_t mostUnconfirmed = 500;
/** Half of what the session takes. */
constexpr std::uint64_t mostUnconfirmedBytes = 33554432;

} // namespace

std::uint64_t PublishRun::Execute(ManagementSession& session, const OutgoingMessage& message, bool showProgress)
{
    const auto start = std::chrono::steady_clock::now();
    m_lastProgress = start;
    const std::uint64_t most = std::clamp<std::uint64_t>(
        mostUnconfirmedBytes / std::max<std::size_t>(message.body.size(), 1), 1, mostUnconfirmed);
    for (std::uint64_t sent = 0; sent < m_count; ++sent)
    {
        if (m_rate > 0)
        {
            std::this_thread::sleep_until(
                start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(static_cast<double>(sent) / m_rate)));
        }
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this, most] { return m_unconfirmed < most; });
            if (m_trouble.result != PublishResult::confirmed)
            {
                break;
            }
            ++m_unconfirmed;
        }
        session.PublishAsync(message, [this](PublishResult result, const std::string& why) { OnOutcome(result, why); });
        if (showProgress)
        {
            ShowProgress(false);
        }
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_unconfirmed == 0; });
    lock.unlock();
    if (showProgress)
    {
        ShowProgress(true);
    }
    return m_confirmed;
}

void PublishRun::OnOutcome(PublishResult result, const std::string& why)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_unconfirmed;
    if (result == PublishResult::confirmed)
    {
        ++m_confirmed;
    }
    else if (m_trouble.result == PublishResult::confirmed)
    {
        m_trouble = PublishOutcome{result, why};
    }
    m_changed.notify_all();
}

void PublishRun::ShowProgress(bool last)
{
    const auto now = std::chrono::steady_clock::now();
    if (!last && now - m_lastProgress < std::chrono::seconds(1))
    {
        return;
    }
    m_lastProgress = now;
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::cerr << "\r" << m_confirmed << " of " << m_count << " confirmed" << (last ? "\n" : "") << std::flush;
}

} // namespace VtxQel

#include "broker/NumberedLoad.h"

#include "common/SFormat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace VtxQel
{

namespace
{

LinkSettings SettingsFor(const std::string& url)
{
    LinkSettings settings = NodeSettings();
    settings.urls = {url};
    return settings;
}

} // namespace

NumberedLoad::NumberedLoad(const std::string& url, std::string queue, std::size_t perSecond)
    : m_link({}, SettingsFor(url)), m_queue(std::move(queue)), m_pause(1000000 / perSecond), m_thread([this] { Run(); })
{
}

NumberedLoad::~NumberedLoad()
{
    Stop();
}

void NumberedLoad::Run()
{
    auto next = std::chrono::steady_clock::now();
    while (!m_stopping)
    {
        OutgoingMessage message;
        message.routingKey = m_queue;
        message.body = std::to_string(m_published++);
        message.properties.deliveryMode = 2;
        message.mandatory = true;
        m_link->Publish(
            std::move(message),
            [this](PublishResult result, const std::string& why)
            {
                EXPECT_EQ(result, PublishResult::confirmed) << why;
                ++m_confirmed;
            });
        next += m_pause;
        std::this_thread::sleep_until(next);
    }
}

std::size_t NumberedLoad::Stop()
{
    m_stopping = true;
    if (m_thread.joinable())
    {
        m_thread.join();
        EXPECT_TRUE(Eventually([this] { return m_confirmed == m_published; }));
    }
    return m_published;
}

std::string Arrivals::ToString() const
{
    return SFormat(
        "lost %zu, twice %zu, out of order %zu (redelivered %zu), longest gap %lld ms", lost, duplicates, outOfOrder,
        redelivered, static_cast<long long>(longestGap.count()));
}

void SettlingListener::OnDelivery(IncomingMessage&& message)
{
    m_link->Settle(message.tag, SettleAs::ack);
    const std::lock_guard lock(m_mutex);
    const std::size_t number = std::stoul(message.body);
    m_arrivals.push_back({number, message.redelivered, std::chrono::steady_clock::now()});
    m_seen.resize(std::max(m_seen.size(), number + 1));
    m_different += m_seen[number] ? 0 : 1;
    m_seen[number] = true;
}

std::size_t SettlingListener::Count() const
{
    const std::lock_guard lock(m_mutex);
    return m_arrivals.size();
}

bool SettlingListener::WaitForAll(std::size_t count) const
{
    return Eventually(
        [&]
        {
            const std::lock_guard lock(m_mutex);
            return m_different >= count;
        });
}

Arrivals SettlingListener::Judge(std::size_t count) const
{
    const std::lock_guard lock(m_mutex);
    Arrivals judged;
    judged.lost = count - m_different;
    judged.duplicates = m_arrivals.size() - m_different;
    std::size_t highest = 0;
    for (std::size_t i = 0; i < m_arrivals.size(); ++i)
    {
        const Arrival& arrival = m_arrivals[i];
        judged.outOfOrder += arrival.number < highest ? 1 : 0;
        judged.redelivered += arrival.redelivered ? 1 : 0;
        highest = std::max(highest, arrival.number);
        if (i > 0)
        {
            const auto gap = arrival.at - m_arrivals[i - 1].at;
            judged.longestGap = std::max(judged.longestGap, std::chrono::duration_cast<std::chrono::milliseconds>(gap));
        }
    }
    return judged;
}

} // namespace VtxQel

#include "broker/LinkHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <unistd.h>

namespace VtxQel
{

namespace
{

std::string FromLauncher(const char* variable)
{
    const char* value = std::getenv(variable);
    if (value == nullptr)
    {
        std::fprintf(stderr, "%s is not set: run this program through tests/support/with_broker\n", variable);
        std::exit(2);
    }
    return value;
}

std::string Run(const std::string& command)
{
    std::FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> piece{};
    while (pipe != nullptr && std::fgets(piece.data(), static_cast<int>(piece.size()), pipe) != nullptr)
    {
        output += piece.data();
    }
    EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0) << command << "\n" << output;
    return output;
}

} // namespace

std::string NodeUrl()
{
    return FromLauncher("QEL_TEST_BROKER_URL");
}

std::string NodeUrl(const std::string& scheme, const std::string& userAndPassword, const std::string& vhost)
{
    const std::string url = NodeUrl();
    const std::size_t host = url.rfind('@') + 1;
    return scheme + "://" + userAndPassword + "@" + url.substr(host, url.find('/', host) - host) + "/" + vhost;
}

std::string OtherNodeUrl()
{
    return FromLauncher("QEL_TEST_OTHER_BROKER_URL");
}

std::string Rabbitmqctl(const std::string& arguments)
{
    return Run(FromLauncher("QEL_TEST_RABBITMQCTL") + " -q " + arguments + " 2>&1");
}

std::string OtherRabbitmqctl(const std::string& arguments)
{
    return Run(FromLauncher("QEL_TEST_OTHER_RABBITMQCTL") + " -q " + arguments + " 2>&1");
}

std::string Unique(const std::string& what)
{
    static std::atomic<int> next{0};
    return what + "-" + std::to_string(getpid()) + "-" + std::to_string(++next);
}

LinkSettings NodeSettings()
{
    LinkSettings settings;
    settings.urls = {NodeUrl()};
    settings.connectionName = Unique("test");
    return settings;
}

QueueSpec Queue(const std::string& name, std::uint16_t prefetch)
{
    QueueSpec queue;
    queue.name = name;
    queue.prefetch = prefetch;
    return queue;
}

bool Eventually(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

DesiredTopology RecordingListener::OnConnected()
{
    const std::lock_guard lock(m_mutex);
    return m_desired;
}

void RecordingListener::OnRestored()
{
    Note([this] { ++m_restored; });
}

void RecordingListener::OnRestoreFailed(const std::string& what, const RequestResult& result)
{
    Note([&] { m_restoreFailed.emplace_back(what, result); });
}

void RecordingListener::OnDisconnected(const std::string& why)
{
    Note([&] { m_disconnects.push_back(why); });
}

void RecordingListener::OnMoved()
{
    Note([this] { ++m_moved; });
}

void RecordingListener::OnLeft(std::size_t unsettled)
{
    Note([&] { m_left.push_back(unsettled); });
}

void RecordingListener::OnConsumerCancelled(const std::string& queue)
{
    Note([&] { m_cancelled.push_back(queue); });
}

void RecordingListener::OnDelivery(IncomingMessage&& message)
{
    Note([&] { m_deliveries.push_back(std::move(message)); });
}

void RecordingListener::OnRefusedDelivery(IncomingMessage&& message, const std::string& why)
{
    Note([&] { m_refused.push_back({std::move(message), why}); });
}

void RecordingListener::OnGaveUp(const std::string& why)
{
    Note([&] { m_gaveUp.push_back(why); });
}

void RecordingListener::OnLoginRefused(const std::string& why)
{
    Note([&] { m_loginRefused.push_back(why); });
}

void RecordingListener::SetDesired(DesiredTopology desired)
{
    Note([&] { m_desired = std::move(desired); });
}

bool RecordingListener::WaitFor(const std::function<bool()>& condition) const
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, PATIENCE, condition);
}

bool RecordingListener::WaitForRestored(std::size_t count)
{
    return WaitFor([&] { return m_restored >= count; });
}

bool RecordingListener::WaitForDeliveries(std::size_t count)
{
    return WaitFor([&] { return m_deliveries.size() >= count; });
}

std::optional<std::string> RecordingListener::WaitForDisconnect(std::size_t count)
{
    return WaitForNth(m_disconnects, count);
}

bool RecordingListener::WaitForMoved(std::size_t count)
{
    return WaitFor([&] { return m_moved >= count; });
}

std::optional<std::size_t> RecordingListener::WaitForLeft(std::size_t count)
{
    return WaitForNth(m_left, count);
}

std::optional<std::string> RecordingListener::WaitForCancelled()
{
    return WaitForNth(m_cancelled, 1);
}

std::optional<std::pair<IncomingMessage, std::string>> RecordingListener::WaitForRefused()
{
    return WaitForNth(m_refused, 1);
}

std::optional<std::string> RecordingListener::WaitForGaveUp()
{
    return WaitForNth(m_gaveUp, 1);
}

bool RecordingListener::WaitForLoginRefused(const std::string& text)
{
    return WaitFor(
        [&]
        {
            return std::any_of(
                m_loginRefused.begin(), m_loginRefused.end(),
                [&](const std::string& why) { return why.find(text) != std::string::npos; });
        });
}

std::optional<std::pair<std::string, RequestResult>> RecordingListener::WaitForRestoreFailed(std::size_t count)
{
    return WaitForNth(m_restoreFailed, count);
}

std::vector<IncomingMessage> RecordingListener::Deliveries() const
{
    const std::lock_guard lock(m_mutex);
    return m_deliveries;
}

IncomingMessage RecordingListener::Delivery(std::size_t index) const
{
    const std::lock_guard lock(m_mutex);
    return m_deliveries.at(index);
}

std::size_t RecordingListener::DeliveryCount() const
{
    const std::lock_guard lock(m_mutex);
    return m_deliveries.size();
}

std::size_t RecordingListener::RestoredCount() const
{
    const std::lock_guard lock(m_mutex);
    return m_restored;
}

std::size_t RecordingListener::DisconnectCount() const
{
    const std::lock_guard lock(m_mutex);
    return m_disconnects.size();
}

TestLink::TestLink(DesiredTopology desired, LinkSettings settings) : m_link(std::move(settings), m_listener)
{
    m_listener.SetDesired(std::move(desired));
    m_link.Start();
    EXPECT_TRUE(m_listener.WaitForRestored(1));
}

std::pair<PublishResult, std::string> TestLink::Publish(OutgoingMessage message)
{
    std::promise<std::pair<PublishResult, std::string>> outcome;
    m_link.Publish(
        std::move(message),
        [&](PublishResult result, const std::string& why) {
            outcome.set_value({result, why});
        });
    return outcome.get_future().get();
}

void TestLink::Send(const std::string& queue, const std::string& body)
{
    OutgoingMessage message;
    message.routingKey = queue;
    message.body = body;
    message.mandatory = true;
    const auto [result, why] = Publish(std::move(message));
    EXPECT_EQ(result, PublishResult::confirmed) << why;
}

void TestLink::SendMany(const std::string& queue, std::size_t count)
{
    std::vector<std::promise<PublishResult>> outcomes(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        OutgoingMessage message;
        message.routingKey = queue;
        message.body = std::to_string(i);
        message.mandatory = true;
        m_link.Publish(
            std::move(message),
            [&outcome = outcomes[i]](PublishResult result, const std::string&) { outcome.set_value(result); });
    }
    for (std::promise<PublishResult>& outcome : outcomes)
    {
        EXPECT_EQ(outcome.get_future().get(), PublishResult::confirmed);
    }
}

std::uint32_t TestLink::Count(const std::string& queue)
{
    QueueCounts counts;
    const RequestResult result = m_link.CountMessages(queue, DEADLINE, counts);
    EXPECT_EQ(result.answer, Answer::ok) << result.text;
    return counts.ready;
}

} // namespace VtxQel

#include "DeadLetterSession.h"

#include "Failure.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace VtxQel
{

namespace
{

using Clock = std::chrono::steady_clock;

/** What stays in the queue is held by the broker for us until the end; the protocol has room for so many. */
constexpr std::uint16_t mostHeld = std::numeric_limits<std::uint16_t>::max();
constexpr std::size_t mostInboxBytes = std::size_t{16} << 20;
/** The greatest body that a broker can be told to take. */
constexpr std::size_t greatestBody = std::size_t{512} << 20;
/** How long nothing has come when we ask the broker whether anything is left. */
constexpr std::chrono::milliseconds idle{500};
constexpr std::chrono::milliseconds poll{10};
constexpr std::chrono::seconds returnPatience{2};
constexpr std::chrono::milliseconds closeBudget{1000};

LinkSettings Settings(const GlobalOptions& options, const std::string& purpose)
{
    LinkSettings settings = options.ToLinkSettings(purpose);
    settings.maxBodyBytes = greatestBody;
    return settings;
}

/** What a message costs us, roughly. */
std::size_t Cost(const DeadLetterAt& letter)
{
    return letter.message.body.size() + 2048;
}

} // namespace

bool Selects(const DeadLetterFilter& filter, const DeadLetterAt& letter)
{
    if (!letter.unreadable.empty())
    {
        return filter.IsEmpty();
    }
    const RmqProperties& properties = *letter.message.properties;
    return filter.Matches(DeadLetter::Of(properties), properties);
}

DeadLetterSession::DeadLetterSession(const GlobalOptions& options, const std::string& purpose, const std::string& queue)
    : m_timeout(options.Timeout()), m_queue(queue), m_link(Settings(options, purpose), *this)
{
}

DeadLetterSession::~DeadLetterSession()
{
    m_link.Stop(closeBudget);
}

void DeadLetterSession::Open(std::uint32_t atMost)
{
    m_link.Start();
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_connected || !m_failure.empty(); });
        if (!m_failure.empty())
        {
            throw Failure(m_failure);
        }
    }
    const QueueCounts counts = CountQueue();
    m_count = counts.ready;
    m_otherConsumers = counts.consumers;
    m_end = std::min(m_count, atMost);
}

QueueCounts DeadLetterSession::CountQueue()
{
    QueueCounts counts;
    const RequestResult result = m_link.CountMessages(m_queue, m_timeout, counts);
    if (result.answer == Answer::ok)
    {
        return counts;
    }
    if (result.code == 404)
    {
        throw Failure(
            "the broker has no queue " + m_queue +
            ": check the agent's id, the broker's URL and virtual host, or name the queue with --dead-letter-queue");
    }
    throw Failure("the broker does not let us look at queue " + m_queue + ": " + result.text);
}

void DeadLetterSession::Consume()
{
    QueueSpec queue;
    queue.name = m_queue;
    queue.passive = true;
    // All of them, also when we want but the first: a quorum queue puts what comes back behind what came back before.
    queue.prefetch = static_cast<std::uint16_t>(std::min<std::uint32_t>(m_count, mostHeld));
    const RequestResult result = m_link.DeclareQueue(queue, m_timeout);
    if (result.answer != Answer::ok)
    {
        throw Failure("the broker does not let us read from queue " + m_queue + ": " + result.text);
    }
    m_consuming = true;
}

std::optional<DeadLetterAt> DeadLetterSession::Next()
{
    if (m_seen == m_end || !m_shortfall.empty())
    {
        return std::nullopt;
    }
    if (m_kept == mostHeld)
    {
        m_shortfall = "no more than " + std::to_string(mostHeld) +
                      " messages can be passed over: what is behind them was not looked at";
        return std::nullopt;
    }
    if (!m_consuming)
    {
        Consume();
    }
    const auto since = Clock::now();
    std::optional<DeadLetterAt> next = Take();
    while (!next && m_shortfall.empty() && IsWorthWaiting(since))
    {
        next = Take();
    }
    return next;
}

/** Waits a moment for the inbox. */
std::optional<DeadLetterAt> DeadLetterSession::Take()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, idle, [this] { return !m_inbox.empty() || !m_failure.empty() || m_interrupted; });
    if (!m_failure.empty())
    {
        throw Failure(m_failure);
    }
    if (m_interrupted)
    {
        m_shortfall = "interrupted";
        return std::nullopt;
    }
    if (m_inbox.empty())
    {
        return std::nullopt;
    }
    DeadLetterAt next = std::move(m_inbox.front());
    m_inbox.pop_front();
    m_inboxBytes -= Cost(next);
    if (m_paused && m_inboxBytes <= mostInboxBytes / 2)
    {
        m_paused = false;
        m_link.PauseReading(false);
    }
    next.number = ++m_seen;
    return next;
}

/** Nothing has come for a moment: whether something will. */
bool DeadLetterSession::IsWorthWaiting(Clock::time_point since)
{
    const QueueCounts counts = CountQueue();
    if (counts.ready == 0)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_inbox.empty())
        {
            return true;
        }
        m_shortfall = "somebody else consumes from the queue at the same time: of the " + std::to_string(m_count) +
                      " messages that were there we saw " + std::to_string(m_seen);
        return false;
    }
    if (Clock::now() - since > m_timeout + idle)
    {
        m_shortfall = "the broker has " + std::to_string(counts.ready) +
                      " more messages but does not give them to us: is another consumer the only active one?";
        return false;
    }
    return true;
}

void DeadLetterSession::Remove(const DeliveryTag& tag)
{
    ++m_removed;
    m_link.Settle(tag, SettleAs::ack);
}

void DeadLetterSession::Publish(OutgoingMessage message, PublishCompletion completion)
{
    message.deadline = m_timeout;
    m_link.Publish(std::move(message), std::move(completion));
}

void DeadLetterSession::Interrupt()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_interrupted = true;
    m_changed.notify_all();
}

void DeadLetterSession::Close()
{
    if (!std::exchange(m_consuming, false))
    {
        return;
    }
    m_link.PauseReading(false);
    // The answer to the cancelling says that a quorum queue has got our acknowledgements: what is waiting for it in the
    // broker's channel is lost with the channel.
    m_link.CancelQueue(m_queue, m_timeout);
    m_link.ReleaseQueue(m_queue, m_timeout);
    // The broker puts them back a little after it has closed the channel; who looks next shall find them.
    const auto deadline = Clock::now() + returnPatience;
    while (m_otherConsumers == 0 && CountQueue().ready + m_removed < m_count && Clock::now() < deadline)
    {
        std::this_thread::sleep_for(poll);
    }
}

void DeadLetterSession::OnRestored()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_connected = true;
    m_changed.notify_all();
}

void DeadLetterSession::OnDisconnected(const std::string& why)
{
    Fail("the connection to the broker ended, what was not removed is in queue " + m_queue + " still: " + why);
}

void DeadLetterSession::OnConsumerCancelled(const std::string& queue)
{
    Fail("the broker ended our reading from queue " + queue + ": was it deleted?");
}

void DeadLetterSession::OnDelivery(IncomingMessage&& message)
{
    Push(std::move(message), {});
}

void DeadLetterSession::OnRefusedDelivery(IncomingMessage&&, const std::string& why)
{
    // Not settled: a rejected dead letter would be gone.
    Push({}, why);
}

void DeadLetterSession::Push(IncomingMessage&& message, const std::string& unreadable)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_inbox.push_back({0, std::move(message), unreadable});
    m_inboxBytes += Cost(m_inbox.back());
    if (!m_paused && m_inboxBytes > mostInboxBytes)
    {
        m_paused = true;
        m_link.PauseReading(true);
    }
    m_changed.notify_all();
}

void DeadLetterSession::OnGaveUp(const std::string& why)
{
    Fail(
        "no connection to the broker " + m_link.Status().url + " within " + InSeconds(m_timeout) + ": " + why +
        ": check the URL, the password and that the broker is running");
}

void DeadLetterSession::OnLoginRefused(const std::string& why)
{
    Fail(
        "the broker " + m_link.Status().url + " does not let us in: " + why +
        ": check user, password and virtual host");
}

void DeadLetterSession::Fail(const std::string& why)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_failure = why;
    m_changed.notify_all();
}

} // namespace VtxQel

#include "ManagementSession.h"

#include "Failure.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <future>
#include <memory>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr const char* helloType = "qelctl.Hello";
constexpr std::chrono::milliseconds closeBudget{1000};

} // namespace

std::string RandomId()
{
    return boost::uuids::to_string(boost::uuids::random_generator()());
}

ManagementSession::ManagementSession(const GlobalOptions& options, const std::string& purpose)
    : m_timeout(options.Timeout()), m_user(options.User()), m_replyQueue("qelctl.reply." + RandomId()),
      m_link(options.ToLinkSettings(purpose), *this)
{
}

ManagementSession::~ManagementSession()
{
    m_link.Stop(closeBudget);
}

void ManagementSession::Open(bool withReplies)
{
    m_withReplies = withReplies;
    m_link.Start();
    WaitUntilRestored();
    if (withReplies)
    {
        ProveReplyQueue();
    }
}

void ManagementSession::Serve(RequestService service)
{
    m_service = std::move(service);
    m_link.Start();
    WaitUntilRestored();
}

void ManagementSession::WaitUntilRestored()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool ended = m_changed.wait_for(lock, m_timeout * 2, [this] { return m_restored || !m_failure.empty(); });
    if (!m_failure.empty())
    {
        throw Failure(m_failure);
    }
    if (!ended)
    {
        throw Failure(
            "the broker did not get ready within " + InSeconds(m_timeout * 2) + ": " + m_lastTrouble +
            (m_service.cure.empty() ? "" : ": " + m_service.cure));
    }
}

// Opens the publishing connection before anything is timed, and tells a broken way back from an agent that is silent.
void ManagementSession::ProveReplyQueue()
{
    OutgoingMessage hello;
    hello.routingKey = m_replyQueue;
    hello.properties.type = helloType;
    hello.properties.correlationId = RandomId();
    hello.mandatory = true;
    const std::string correlationId = hello.properties.correlationId;
    const PublishOutcome outcome = Publish(std::move(hello));
    if (outcome.result != PublishResult::confirmed)
    {
        throw Failure(
            "the broker does not take messages for our reply queue " + m_replyQueue + ": " + outcome.why +
            ": the user needs to be allowed to write to the default exchange (\"amq.default\")");
    }
    if (!WaitForReply(correlationId, std::chrono::steady_clock::now() + m_timeout))
    {
        throw Failure(
            "nothing arrives on our reply queue " + m_replyQueue + " within " + InSeconds(m_timeout) +
            ": is the broker overloaded?");
    }
}

PublishOutcome ManagementSession::Publish(OutgoingMessage message)
{
    const auto promise = std::make_shared<std::promise<PublishOutcome>>();
    std::future<PublishOutcome> outcome = promise->get_future();
    message.deadline = m_timeout;
    m_link.Publish(
        std::move(message),
        [promise](PublishResult result, const std::string& why) {
            promise->set_value(PublishOutcome{result, why});
        });
    return outcome.get();
}

void ManagementSession::PublishAsync(OutgoingMessage message, PublishCompletion completion)
{
    message.deadline = m_timeout;
    m_link.Publish(std::move(message), std::move(completion));
}

std::optional<Reply> ManagementSession::WaitForReply(
    const std::string& correlationId, std::chrono::steady_clock::time_point deadline)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;)
    {
        if (!m_changed.wait_until(lock, deadline, [this] { return !m_inbox.empty() || !m_failure.empty(); }))
        {
            return std::nullopt;
        }
        if (m_inbox.empty())
        {
            throw Failure(m_failure);
        }
        Reply reply = std::move(m_inbox.front());
        m_inbox.pop_front();
        if (reply.properties.correlationId == correlationId)
        {
            return reply;
        }
    }
}

DesiredTopology ManagementSession::OnConnected()
{
    DesiredTopology topology = m_service.topology;
    if (m_withReplies)
    {
        QueueSpec queue;
        queue.name = m_replyQueue;
        queue.durable = false;
        queue.exclusive = true;
        queue.autoDelete = true;
        queue.prefetch = 100;
        topology.ownQueues.push_back(queue);
    }
    return topology;
}

void ManagementSession::OnRestored()
{
    if (m_service.onRestored)
    {
        m_service.onRestored();
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_restored = true;
    m_changed.notify_all();
}

void ManagementSession::OnRestoreFailed(const std::string& what, const RequestResult& result)
{
    const std::string trouble = what + ": " + result.text;
    if (TellTrouble(trouble))
    {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lastTrouble = trouble;
    if (result.answer == Answer::refused)
    {
        m_failure = m_service.onRequest
                        ? "the broker refuses us: " + trouble + ": " + m_service.cure
                        : "the broker refuses our reply queue: " + trouble +
                              ": the user needs configure, write and read permission for queues named qelctl.reply.*";
        m_changed.notify_all();
    }
}

void ManagementSession::OnDisconnected(const std::string& why)
{
    TellTrouble("the broker is lost, it is tried again: " + why);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lastTrouble = why;
}

void ManagementSession::OnConsumerCancelled(const std::string& queue)
{
    TellTrouble("the broker has removed the queue " + queue + ", it is made again");
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lastTrouble = "the broker has removed the queue " + queue;
}

void ManagementSession::OnDelivery(IncomingMessage&& message)
{
    const auto arrival = std::chrono::steady_clock::now();
    m_link.Settle(message.tag, SettleAs::ack);
    if (m_service.onRequest)
    {
        m_service.onRequest(std::move(*message.properties));
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_inbox.push_back(Reply{*message.properties, std::move(message.body), arrival});
    m_changed.notify_all();
}

void ManagementSession::OnRefusedDelivery(IncomingMessage&& message, const std::string& why)
{
    m_link.Settle(message.tag, SettleAs::reject);
    TellTrouble("a message on " + message.queue + " could not be read: " + why);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lastTrouble = "a message on " + message.queue + " could not be read: " + why;
}

void ManagementSession::OnGaveUp(const std::string& why)
{
    Fail(
        "no connection to the broker " + m_link.Status().url + " within " + InSeconds(m_timeout) + ": " + why +
        ": check the URL, the password and that the broker is running");
}

void ManagementSession::OnLoginRefused(const std::string& why)
{
    Fail(
        "the broker " + m_link.Status().url + " does not let us in: " + why +
        ": check user, password and virtual host");
}

void ManagementSession::Fail(const std::string& why)
{
    if (TellTrouble(why))
    {
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_failure = why;
    m_changed.notify_all();
}

// What serves outlives trouble once it has begun.
bool ManagementSession::TellTrouble(const std::string& why)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_service.onTrouble || !m_restored)
        {
            return false;
        }
    }
    m_service.onTrouble(why);
    return true;
}

} // namespace VtxQel

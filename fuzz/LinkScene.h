#pragma once

#include "Require.h"
#include "ScriptedSocket.h"
#include "broker/ConnectionSource.h"
#include "broker/ConsumeLink.h"
#include "broker/PublishLink.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel::Fuzz
{

inline QueueSpec QueueOfScene(const std::string& name)
{
    QueueSpec queue;
    queue.name = name;
    queue.prefetch = 3;
    return queue;
}

/** Requests to a link; every one has to be answered, once. */
class Requests
{
  public:
    using Kind = TopologyRequest::Kind;

    Requests() = default;
    ~Requests() { Require(m_answered == m_asked, "every request is answered once"); }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    void Submit(ConsumeLink& link, Kind kind, const std::string& queue)
    {
        auto request = std::make_shared<TopologyRequest>();
        request->kind = kind;
        request->queue = QueueOfScene(queue);
        request->binding = {"client", "exchange", "c.#"};
        request->deadline = std::chrono::steady_clock::now() + std::chrono::hours(1);
        request->done = [this](const RequestResult&, const QueueCounts&) { ++m_answered; };
        ++m_asked;
        link.Submit(std::move(request));
    }
    void SubmitAll(ConsumeLink& link)
    {
        for (const Kind kind :
             {Kind::bind, Kind::declareQueue, Kind::countMessages, Kind::cancelQueue, Kind::unbind, Kind::releaseQueue})
        {
            Submit(link, kind, "more");
        }
    }

  private:
    int m_asked = 0;
    int m_answered = 0;
};

/**
 * The user of a consuming link: wants a few queues and bindings, settles what it gets, and does with the link what the
 * first letter of a delivery's routing key asks for.
 */
class Wishes : public LinkListener
{
  public:
    explicit Wishes(boost::asio::io_context& io) : m_io(io) {}

    void Use(ConsumeLink& link, Requests& requests)
    {
        m_link = &link;
        m_requests = &requests;
    }
    /** Settles what was answered since the last call. */
    void Collect()
    {
        for (const auto& [tag, as] : std::exchange(m_settled, {}))
        {
            m_link->Settle(tag, as);
        }
    }

    DesiredTopology OnConnected() override
    {
        Require(!m_connected, "it connects when it is not connected");
        m_connected = true;
        DesiredTopology wanted;
        wanted.exchanges = {{"exchange", "topic", false}};
        wanted.ownQueues = {QueueOfScene("client")};
        wanted.bindings = {{"client", "exchange", "a.*"}, {"client", "exchange", "b"}};
        wanted.applicationQueues = {QueueOfScene("jobs")};
        return wanted;
    }
    void OnRestored() override { Require(m_connected, "it is restored while it is connected"); }
    void OnRestoreFailed(const std::string&, const RequestResult& result) override
    {
        Require(result.answer != Answer::ok, "a failure has failed");
    }
    void OnDisconnected(const std::string& why) override
    {
        Require(m_connected && !why.empty(), "it ends after it was connected, for a reason");
        m_connected = false;
    }
    void OnConsumerCancelled(const std::string&) override {}
    void OnDelivery(IncomingMessage&& message) override
    {
        Require(m_connected && message.properties, "a delivery comes by a connection and has properties");
        Require(message.body.size() <= MAX_BODY, "a body is bounded");
        constexpr SettleAs ways[] = {SettleAs::ack, SettleAs::reject, SettleAs::requeue};
        if (!message.redelivered)
        {
            m_settled.emplace_back(message.tag, ways[message.routingKey.size() % 3]);
        }
        // As other threads do it: later, on the I/O thread.
        boost::asio::post(
            m_io, [this, what = message.routingKey.empty() ? ' ' : message.routingKey.front()] { Act(what); });
    }
    void OnRefusedDelivery(IncomingMessage&& message, const std::string& why) override
    {
        Require(!why.empty(), "a delivery is refused for a reason");
        m_link->Settle(message.tag, SettleAs::reject);
    }
    void OnGaveUp(const std::string&) override {}

    static constexpr std::size_t MAX_BODY = 5000;

  private:
    void Act(char what)
    {
        switch (what)
        {
        case 'c':
            m_requests->Submit(*m_link, Requests::Kind::cancelQueue, "jobs");
            break;
        case 'd':
            m_requests->Submit(*m_link, Requests::Kind::declareQueue, "jobs");
            break;
        case 'r':
            m_requests->Submit(*m_link, Requests::Kind::releaseQueue, "jobs");
            break;
        case 'm':
            m_link->GoTo(1 - m_link->UrlIndex());
            break;
        case 'p':
            m_link->PauseReading(true);
            boost::asio::post(m_io, [this] { m_link->PauseReading(false); });
            break;
        case 's':
            m_link->StopConsuming();
            break;
        default:
            m_link->FlushSettlements();
            break;
        }
    }

    boost::asio::io_context& m_io;
    ConsumeLink* m_link = nullptr;
    Requests* m_requests = nullptr;
    bool m_connected = false;
    std::vector<std::pair<DeliveryTag, SettleAs>> m_settled;
};

inline LinkSettings SettingsOfScene()
{
    LinkSettings settings;
    settings.urls = {"amqp://host", "amqp://other"};
    settings.maxBodyBytes = Wishes::MAX_BODY;
    return settings;
}

/** Lets a consuming link live through the script. */
inline void RunConsumeLink(boost::asio::io_context& io, ConnectionSource& source, LinkState& state)
{
    Requests requests;
    Wishes wishes(io);
    ConsumeLink link(io, source, wishes, state);
    wishes.Use(link, requests);
    link.SetCollector([&wishes] { wishes.Collect(); });
    link.Start();
    requests.SubmitAll(link);
    io.poll();
    bool stopped = false;
    link.Stop([&stopped] { stopped = true; });
    io.poll();
    link.Abort();
    io.poll();
    Require(stopped, "the link stops");
}

/** Lets a publishing link live through the script. */
inline void RunPublishLink(boost::asio::io_context& io, ConnectionSource& source, LinkState& state)
{
    constexpr int MESSAGES = 5;
    int ended = 0;
    int told = 0;
    PublishLink link(io, source, state, [&ended](std::size_t) { ++ended; });
    link.SetPreferredUrl([] { return std::size_t{0}; });
    for (int number = 0; number < MESSAGES; ++number)
    {
        OutgoingMessage message;
        message.exchange = "exchange";
        message.routingKey = std::string(static_cast<std::size_t>(number), 'k');
        message.body = std::string(static_cast<std::size_t>(number) * 40000, 'b');
        message.mandatory = number % 2 == 0;
        link.Publish(
            std::move(message), [&told](PublishResult, const std::string&) { ++told; },
            std::chrono::steady_clock::now() + std::chrono::hours(1));
    }
    io.poll();
    bool stopped = false;
    link.Stop([&stopped] { stopped = true; });
    io.poll();
    link.Abort();
    io.poll();
    Require(stopped, "the link stops");
    Require(ended == MESSAGES && told == MESSAGES, "every publication ends once");
}

inline void RunLink(SocketScript& script, bool publishing)
{
    SocketScript::Current() = &script;
    const LinkSettings settings = SettingsOfScene();
    LinkState state;
    boost::asio::io_context io(1);
    ConnectionSource source(io, settings, state);
    if (publishing)
    {
        RunPublishLink(io, source, state);
    }
    else
    {
        RunConsumeLink(io, source, state);
    }
}

} // namespace VtxQel::Fuzz

#pragma once

#include "Require.h"
#include "ScriptedSocket.h"
#include "broker/ConnectionSource.h"
#include "broker/ConsumeLink.h"
#include "broker/PublishLink.h"

#include <boost/asio/io_context.hpp>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace VtxQel::Fuzz
{

/** The user of a consuming link: wants a few queues and bindings, settles what it gets and asks for more. */
class Wishes : public LinkListener
{
  public:
    explicit Wishes(ConsumeLink*& link) : m_link(link) {}

    DesiredTopology OnConnected() override
    {
        Require(!m_connected, "it connects when it is not connected");
        m_connected = true;
        DesiredTopology wanted;
        wanted.exchanges = {{"exchange", "topic", false}};
        wanted.ownQueues = {Queue("client")};
        wanted.bindings = {{"client", "exchange", "a.*"}, {"client", "exchange", "b"}};
        wanted.applicationQueues = {Queue("jobs")};
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
            m_link->Settle(message.tag, ways[message.routingKey.size() % 3]);
        }
    }
    void OnRefusedDelivery(const std::string&, const std::string& why) override
    {
        Require(!why.empty(), "a delivery is refused for a reason");
    }
    void OnGaveUp(const std::string&) override {}

    static QueueSpec Queue(const std::string& name)
    {
        QueueSpec queue;
        queue.name = name;
        queue.prefetch = 3;
        return queue;
    }

    static constexpr std::size_t MAX_BODY = 5000;

  private:
    ConsumeLink*& m_link;
    bool m_connected = false;
};

inline LinkSettings SettingsOfScene()
{
    LinkSettings settings;
    settings.urls = {"amqp://host", "amqp://other"};
    settings.maxBodyBytes = Wishes::MAX_BODY;
    return settings;
}

/** One request of each kind; every one has to be answered, once. */
class Requests
{
  public:
    ~Requests() { Require(m_answered == m_asked, "every request is answered once"); }
    Requests() = default;
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    void Submit(ConsumeLink& link)
    {
        using Kind = TopologyRequest::Kind;
        for (const Kind kind :
             {Kind::bind, Kind::declareQueue, Kind::countMessages, Kind::cancelQueue, Kind::unbind, Kind::releaseQueue})
        {
            auto request = std::make_shared<TopologyRequest>();
            request->kind = kind;
            request->queue = Wishes::Queue(kind == Kind::releaseQueue ? "jobs" : "more");
            request->binding = {"client", "exchange", "c.#"};
            request->deadline = std::chrono::steady_clock::now() + std::chrono::hours(1);
            request->done = [this](const RequestResult&, const QueueCounts&) { ++m_answered; };
            ++m_asked;
            link.Submit(std::move(request));
        }
    }

  private:
    int m_asked = 0;
    int m_answered = 0;
};

/** Lets a consuming link live through the script. */
inline void RunConsumeLink(boost::asio::io_context& io, ConnectionSource& source, LinkState& state)
{
    ConsumeLink* place = nullptr;
    Wishes wishes(place);
    Requests requests;
    ConsumeLink link(io, source, wishes, state);
    place = &link;
    link.SetCollector([] {});
    link.Start();
    requests.Submit(link);
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

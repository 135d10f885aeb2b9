#include "broker/BrokerClient.h"
#include "broker/RawClient.h"

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace VtxQel
{
namespace
{

/** Longer than anything here takes on a loaded machine; reached only when something is broken. */
constexpr std::chrono::seconds PATIENCE{60};

/** What other threads bring, in order; waiting for it is bounded. */
template <class Value>
class Inbox
{
  public:
    void Put(Value value)
    {
        const std::lock_guard lock(m_mutex);
        m_values.push_back(std::move(value));
        m_changed.notify_all();
    }
    std::optional<Value> Take()
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, PATIENCE, [this] { return !m_values.empty(); }))
        {
            return std::nullopt;
        }
        Value value = std::move(m_values.front());
        m_values.pop_front();
        return value;
    }
    std::size_t Size()
    {
        const std::lock_guard lock(m_mutex);
        return m_values.size();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Value> m_values;
};

/** A handler that does what the test says with each message. */
class ScriptedHandler : public MsgHandler
{
  public:
    using Script = std::function<bool(const boost::shared_ptr<Delivery>&)>;
    explicit ScriptedHandler(Script script) : m_script(std::move(script)) {}
    bool Callback(boost::shared_ptr<RmqMessage> msg) override
    {
        return m_script(boost::dynamic_pointer_cast<Delivery>(msg));
    }

  private:
    const Script m_script;
};

/** Somebody else's connection to the same broker: publishes, looks into queues. */
class Outsider : private LinkListener
{
  public:
    explicit Outsider(const std::string& url) : m_link(Settings(url), *this) { m_link.Start(); }
    ~Outsider() override { m_link.Stop(std::chrono::seconds(1)); }

    void Publish(const std::string& queue, const std::string& body, RmqProperties properties = {})
    {
        OutgoingMessage message;
        message.routingKey = queue;
        message.body = body;
        message.mandatory = true;
        message.properties = std::move(properties);
        Inbox<PublishResult> answer;
        m_link.Publish(message, [&answer](PublishResult result, const std::string&) { answer.Put(result); });
        ASSERT_EQ(answer.Take(), PublishResult::confirmed);
    }
    /** Waits until the queue has no message that the broker has not sent to its consumer. */
    void WaitUntilSent(const std::string& queue)
    {
        const auto end = std::chrono::steady_clock::now() + PATIENCE;
        QueueCounts counts;
        do
        {
            ASSERT_LT(std::chrono::steady_clock::now(), end);
            ASSERT_EQ(m_link.CountMessages(queue, PATIENCE, counts).answer, Answer::ok);
        } while (counts.ready > 0);
    }
    /** Takes the next message of a queue for good. */
    std::optional<IncomingMessage> Get(const QueueSpec& queue)
    {
        QueueSpec consumed = queue;
        consumed.prefetch = 1;
        EXPECT_EQ(m_link.DeclareQueue(consumed, PATIENCE).answer, Answer::ok);
        std::optional<IncomingMessage> message = m_deliveries.Take();
        if (message)
        {
            m_link.Settle(message->tag, SettleAs::ack);
        }
        EXPECT_EQ(m_link.ReleaseQueue(queue.name, PATIENCE).answer, Answer::ok);
        return message;
    }

  private:
    static LinkSettings Settings(const std::string& url)
    {
        LinkSettings settings;
        settings.urls = {url};
        settings.connectionName = "outsider";
        return settings;
    }
    DesiredTopology OnConnected() override { return {}; }
    void OnRestored() override {}
    void OnRestoreFailed(const std::string&, const RequestResult&) override {}
    void OnDisconnected(const std::string&) override {}
    void OnConsumerCancelled(const std::string&) override {}
    void OnDelivery(IncomingMessage&& message) override { m_deliveries.Put(std::move(message)); }
    void OnRefusedDelivery(IncomingMessage&&, const std::string&) override {}
    void OnGaveUp(const std::string&) override {}

    Inbox<IncomingMessage> m_deliveries;
    BrokerLink m_link;
};

std::string HeaderOf(const IncomingMessage& message, const std::string& name)
{
    for (const auto& [key, value] : message.properties->headers)
    {
        if (key == name)
        {
            const auto* text = std::get_if<std::string>(&value.value);
            const auto* number = std::get_if<std::int64_t>(&value.value);
            return text != nullptr ? *text : number != nullptr ? std::to_string(*number) : "present";
        }
    }
    return "absent";
}

/** A client of its own queues on the broker of the environment. */
class SettlementTest : public testing::Test
{
  protected:
    SettlementTest()
    {
        const std::string name = std::string("settlement.") + std::to_string(::getpid()) + "." +
                                 testing::UnitTest::GetInstance()->current_test_info()->name();
        settings.link.urls = {url};
        settings.link.connectionName = name;
        settings.names.exchange = name;
        settings.names.exchangeType = "topic";
        settings.names.clientQueue = name;
        settings.names.priorityQueue = name + ".priority";
        settings.names.deadLetterQueue = name + ".dead";
        settings.queueType = "classic";
        settings.prefetch = 10;
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-settlement-XXXXXX").string();
        folder = ::mkdtemp(pattern.data());
    }
    ~SettlementTest() override
    {
        End();
        std::filesystem::remove_all(folder);
    }

    void Begin(const ScriptedHandler::Script& script)
    {
        registry = boost::make_shared<RoutingRegistry>();
        const auto handler = boost::make_shared<ScriptedHandler>(script);
        for (const std::string& queue : {settings.names.clientQueue, settings.names.priorityQueue})
        {
            registry->Add(
                queue, boost::make_shared<RoutingRegistryEntry>(handler, 0, static_cast<channelPriority_e>(0)));
        }
        journal.emplace((folder / "journal").string());
        client = boost::make_shared<BrokerClient>(
            settings, registry, *journal, [](const std::string&, const std::string&, const std::string&) { return ""; },
            BrokerEvents{[] {}, [] {}, [this] { restored.Put(true); }});
        client->Start();
        ASSERT_TRUE(restored.Take());
    }
    void End()
    {
        if (client)
        {
            client->StopConsuming();
            client->Stop(std::chrono::seconds(2));
            kept.clear();
            client.reset();
        }
    }

    /** As the client declares it. */
    QueueSpec Plain(const std::string& name) const
    {
        QueueSpec queue;
        queue.name = name;
        queue.arguments = {{"x-queue-type", RmqValue::String(settings.queueType)}};
        return queue;
    }
    /** Whether the client queue still has a message for whoever comes next. */
    std::string NextDelivery()
    {
        Inbox<std::string> bodies;
        Begin(
            [&bodies](const boost::shared_ptr<Delivery>& message)
            {
                bodies.Put(
                    std::string(reinterpret_cast<const char*>(message->GetBody()->bytes), message->GetBodyLength()));
                return true;
            });
        std::string body = bodies.Take().value_or("nothing");
        End();
        return body;
    }

    const std::string url = std::getenv("QEL_TEST_BROKER_URL");
    BrokerSettings settings;
    std::filesystem::path folder;
    boost::shared_ptr<RoutingRegistry> registry;
    std::optional<Journal> journal;
    boost::shared_ptr<BrokerClient> client;
    Inbox<bool> restored;
    /** Receipts that nobody answers. */
    std::vector<boost::shared_ptr<Receipt>> kept;
    Outsider outsider{url};
};

TEST_F(SettlementTest, AnAcceptedMessageWithoutReceiversIsAcknowledged)
{
    Inbox<bool> handled;
    Begin(
        [&handled](const boost::shared_ptr<Delivery>&)
        {
            handled.Put(true);
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "first");
    ASSERT_TRUE(handled.Take());
    End();
    outsider.Publish(settings.names.clientQueue, "second");
    EXPECT_EQ(NextDelivery(), "second");
}

/** As when it is still being sent to an application that was quicker to answer. */
TEST_F(SettlementTest, ABodyOutlivesItsMessageAndDoesNotHoldIt)
{
    boost::weak_ptr<Delivery> message;
    Inbox<boost::shared_ptr<RmqBody>> bodies;
    Begin(
        [&](const boost::shared_ptr<Delivery>& delivered)
        {
            message = delivered;
            bodies.Put(delivered->GetBody());
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "a body");
    const auto body = bodies.Take();
    ASSERT_TRUE(body);
    End();
    EXPECT_TRUE(message.expired());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>((*body)->bytes), (*body)->length), "a body");
}

TEST_F(SettlementTest, NothingIsReadBeyondTheBoundAfterARequestEither)
{
    settings.maxHeldBytes = 10;
    Inbox<boost::shared_ptr<Receipt>> receipts;
    Begin(
        [&receipts](const boost::shared_ptr<Delivery>& message)
        {
            receipts.Put(message->Expect("web"));
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "more than ten");
    auto first = receipts.Take();
    ASSERT_TRUE(first);
    ASSERT_TRUE(client->BindTopic(settings.names.clientQueue, settings.names.exchange, "a topic"));
    // The read that was waiting when the pause began takes the second one.
    outsider.Publish(settings.names.clientQueue, "2nd");
    const auto second = receipts.Take();
    ASSERT_TRUE(second);
    outsider.Publish(settings.names.clientQueue, "3rd");
    outsider.WaitUntilSent(settings.names.clientQueue);
    EXPECT_EQ(receipts.Size(), 0U);
    (*first)->Done();
    first.reset();
    EXPECT_TRUE(receipts.Take()) << "there is room again";
}

TEST_F(SettlementTest, AMessageIsAcknowledgedWhenItsLastReceiverIsDone)
{
    Inbox<std::pair<boost::shared_ptr<Receipt>, boost::shared_ptr<Receipt>>> receipts;
    Begin(
        [&receipts](const boost::shared_ptr<Delivery>& message)
        {
            receipts.Put({message->Expect("web"), message->Expect("mail")});
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "first");
    auto both = receipts.Take();
    ASSERT_TRUE(both);
    both->first->Done();
    both->second->Done();
    both.reset();
    End();
    outsider.Publish(settings.names.clientQueue, "second");
    EXPECT_EQ(NextDelivery(), "second");
}

TEST_F(SettlementTest, AMessageThatOneReceiverHasNotAnsweredStaysWithTheBroker)
{
    Inbox<bool> handled;
    Begin(
        [this, &handled](const boost::shared_ptr<Delivery>& message)
        {
            message->Expect("web")->Done();
            kept.push_back(message->Expect("mail"));
            handled.Put(true);
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "first");
    ASSERT_TRUE(handled.Take());
    End();
    EXPECT_EQ(NextDelivery(), "first");
}

TEST_F(SettlementTest, ADeadMessageGoesToTheDeadLetterQueueWithReasonAndOrigin)
{
    Begin(
        [](const boost::shared_ptr<Delivery>& message)
        {
            message->Expect("web")->Dead("cannot be parsed", 3);
            return true;
        });
    RmqProperties properties;
    properties.type = "order";
    properties.expiration = "3600000";
    properties.headers = {{"colour", RmqValue::String("red")}};
    outsider.Publish(settings.names.clientQueue, "bad", properties);
    const auto letter = outsider.Get(Plain(settings.names.deadLetterQueue));
    ASSERT_TRUE(letter);
    EXPECT_EQ(letter->body, "bad");
    EXPECT_EQ(letter->properties->type, "order");
    EXPECT_EQ(letter->properties->expiration, "");
    EXPECT_EQ(HeaderOf(*letter, "colour"), "red");
    EXPECT_EQ(HeaderOf(*letter, Header::REASON), "cannot be parsed");
    EXPECT_EQ(HeaderOf(*letter, Header::APPLICATION), "web");
    EXPECT_EQ(HeaderOf(*letter, Header::TRIES), "3");
    EXPECT_EQ(HeaderOf(*letter, Header::TIME), "present");
    EXPECT_EQ(HeaderOf(*letter, Header::QUEUE), settings.names.clientQueue);
    EXPECT_EQ(HeaderOf(*letter, Header::ROUTING_KEY), settings.names.clientQueue);
    EXPECT_EQ(HeaderOf(*letter, Header::EXPIRATION), "3600000");
    End();
    outsider.Publish(settings.names.clientQueue, "second");
    EXPECT_EQ(NextDelivery(), "second");
}

TEST_F(SettlementTest, ARefusedMessageIsDeadLetteredAsTakenByNobody)
{
    Begin([](const boost::shared_ptr<Delivery>&) { return false; });
    outsider.Publish(settings.names.clientQueue, "homeless");
    const auto letter = outsider.Get(Plain(settings.names.deadLetterQueue));
    ASSERT_TRUE(letter);
    EXPECT_EQ(letter->body, "homeless");
    EXPECT_EQ(HeaderOf(*letter, Header::REASON), "no application takes the message");
}

TEST_F(SettlementTest, AnApplicationsMessageThatCannotBeReadIsDeadLetteredWithWhatIsLeftOfIt)
{
    Begin([](const boost::shared_ptr<Delivery>&) { return true; });
    const std::string queue = settings.names.clientQueue + ".jobs";
    ASSERT_TRUE(client->DeclareQueue(queue));
    RawClient(url).PublishNested(queue, 15000);
    const auto letter = outsider.Get(Plain(settings.names.deadLetterQueue));
    ASSERT_TRUE(letter);
    EXPECT_EQ(letter->body, "deep");
    EXPECT_EQ(HeaderOf(*letter, Header::REASON), "could not be read: headers nested too deeply");
    EXPECT_EQ(HeaderOf(*letter, Header::QUEUE), queue);
    End();
    outsider.Publish(queue, "second");
    EXPECT_EQ(outsider.Get(Plain(queue))->body, "second");
}

TEST_F(SettlementTest, WhatFitsIntoNoCopyLeavesAnApplicationsQueueWithoutItsHeaders)
{
    Begin([](const boost::shared_ptr<Delivery>&) { return false; });
    const std::string queue = settings.names.clientQueue + ".jobs";
    ASSERT_TRUE(client->DeclareQueue(queue));
    RmqProperties properties;
    properties.type = "order";
    properties.headers = {{"long", RmqValue::String(std::string(130900, 'h'))}};
    outsider.Publish(queue, "first", properties);
    const auto letter = outsider.Get(Plain(settings.names.deadLetterQueue));
    ASSERT_TRUE(letter);
    EXPECT_EQ(letter->body, "first");
    EXPECT_EQ(letter->properties->type, "order");
    EXPECT_EQ(HeaderOf(*letter, "long"), "absent");
    EXPECT_EQ(HeaderOf(*letter, Header::REASON), "no application takes the message");
    EXPECT_EQ(HeaderOf(*letter, Header::QUEUE), queue);
}

TEST_F(SettlementTest, WhatFitsIntoNoParkingQueueIsDeadLettered)
{
    Begin(
        [](const boost::shared_ptr<Delivery>& message)
        {
            message->Expect("web")->Park(0);
            return true;
        });
    const std::string queue = settings.names.clientQueue + ".jobs";
    ASSERT_TRUE(client->DeclareQueue(queue));
    RmqProperties properties;
    properties.headers = {{"long", RmqValue::String(std::string(130900, 'h'))}};
    outsider.Publish(queue, "first", properties);
    const auto letter = outsider.Get(Plain(settings.names.deadLetterQueue));
    ASSERT_TRUE(letter);
    EXPECT_EQ(letter->body, "first");
    EXPECT_EQ(HeaderOf(*letter, Header::REASON).substr(0, 21), "could not be parked: ");
}

TEST_F(SettlementTest, AMessageWhoseHandlingThrowsIsDeadLetteredAfterFiveTries)
{
    std::atomic<int> tries{0};
    Begin(
        [&tries](const boost::shared_ptr<Delivery>& message) -> bool
        {
            ++tries;
            throw std::runtime_error("no luck with " + std::to_string(message->GetBodyLength()) + " bytes");
        });
    outsider.Publish(settings.names.clientQueue, "cursed");
    const auto letter = outsider.Get(Plain(settings.names.deadLetterQueue));
    ASSERT_TRUE(letter);
    EXPECT_EQ(tries, 5);
    EXPECT_EQ(HeaderOf(*letter, Header::REASON), "handling failed 5 times, last with: no luck with 6 bytes");
}

TEST_F(SettlementTest, WhatAnExceptionHeldBackIsHandledAtALaterTry)
{
    std::atomic<int> tries{0};
    Inbox<bool> handled;
    Begin(
        [&tries, &handled](const boost::shared_ptr<Delivery>&)
        {
            if (++tries == 1)
            {
                throw std::runtime_error("not yet");
            }
            handled.Put(true);
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "first");
    EXPECT_TRUE(handled.Take());
    End();
    outsider.Publish(settings.names.clientQueue, "second");
    EXPECT_EQ(NextDelivery(), "second");
}

TEST_F(SettlementTest, WhatTheAgentHoldsWhenItStopsIsDeliveredAgain)
{
    Inbox<bool> handled;
    Begin(
        [this, &handled](const boost::shared_ptr<Delivery>& message)
        {
            kept.push_back(message->Expect("web"));
            handled.Put(true);
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "first");
    ASSERT_TRUE(handled.Take());
    End();
    EXPECT_EQ(NextDelivery(), "first");
}

TEST_F(SettlementTest, AnAnswerAfterTheConnectionIsGoneHasNoEffect)
{
    Inbox<bool> handled;
    Begin(
        [this, &handled](const boost::shared_ptr<Delivery>& message)
        {
            if (kept.empty())
            {
                kept.push_back(message->Expect("web"));
            }
            handled.Put(message->IsRedelivered());
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "first");
    EXPECT_EQ(handled.Take(), false);
    client->MoveTo(0);
    ASSERT_TRUE(restored.Take());
    EXPECT_EQ(handled.Take(), true);
    kept.front()->Done();
    outsider.Publish(settings.names.clientQueue, "second");
    EXPECT_EQ(handled.Take(), false) << "the channel must have survived the late answer";
}

TEST_F(SettlementTest, AParkedMessageComesBackAsItWasInOrder)
{
    struct Seen
    {
        std::string body, routingKey, queue, parkedFor, expiration;
        std::uint32_t tries;
        bool operator==(const Seen&) const = default;
    };
    Inbox<Seen> seen;
    Begin(
        [&seen](const boost::shared_ptr<Delivery>& message)
        {
            const boost::shared_ptr<Receipt> receipt = message->Expect("web");
            if (message->GetParkedFor().empty())
            {
                receipt->Park(2);
                return true;
            }
            seen.Put(
                {std::string(reinterpret_cast<const char*>(message->GetBody()->bytes), message->GetBodyLength()),
                 message->GetRoutingKey(), message->GetQueue(), message->GetParkedFor(),
                 message->GetProperties()->expiration, message->GetTries()});
            receipt->Done();
            return true;
        });
    RmqProperties properties;
    properties.expiration = "3600000";
    for (const char* body : {"1", "2", "3"})
    {
        outsider.Publish(settings.names.clientQueue, body, properties);
    }
    client->ConsumeParking("web", 10);
    for (const char* body : {"1", "2", "3"})
    {
        const std::string& queue = settings.names.clientQueue;
        EXPECT_EQ(seen.Take(), (Seen{body, queue, queue, "web", "3600000", 2}));
    }
}

TEST_F(SettlementTest, AMarkerComesBehindWhatWasParkedBefore)
{
    Inbox<std::string> seen;
    Begin(
        [&seen](const boost::shared_ptr<Delivery>& message)
        {
            const boost::shared_ptr<Receipt> receipt = message->Expect("web");
            if (message->GetParkedFor().empty())
            {
                receipt->Park(0);
                seen.Put("parked");
                return true;
            }
            const bool marker = !message->GetProperties()->headers.empty();
            seen.Put(marker ? "marker" : "message");
            receipt->Done();
            return true;
        });
    outsider.Publish(settings.names.clientQueue, "first");
    EXPECT_EQ(seen.Take(), "parked");
    Inbox<bool> sent;
    client->Settling().Mark(
        "web", {{"x-test", RmqValue::Integer(1)}}, [&sent](bool confirmed) { sent.Put(confirmed); });
    EXPECT_EQ(sent.Take(), true);
    client->ConsumeParking("web", 10);
    EXPECT_EQ(seen.Take(), "message");
    EXPECT_EQ(seen.Take(), "marker");
}

} // namespace
} // namespace VtxQel

#include "broker/LinkHarness.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace VtxQel
{

using testing::HasSubstr;

namespace
{

/** Counts outcomes of many publishes. */
class Outcomes
{
  public:
    PublishCompletion Expect()
    {
        const std::lock_guard lock(m_mutex);
        ++m_expected;
        return [this, told = std::make_shared<std::atomic<int>>(0)](PublishResult result, const std::string& why)
        {
            EXPECT_EQ(++*told, 1) << "told twice";
            const std::lock_guard inner(m_mutex);
            ++m_counts[result];
            ++m_ended;
            m_lastWhy = why;
        };
    }
    bool WaitForAll()
    {
        return Eventually(
            [this]
            {
                const std::lock_guard lock(m_mutex);
                return m_ended == m_expected;
            });
    }
    int Count(PublishResult result)
    {
        const std::lock_guard lock(m_mutex);
        return m_counts[result];
    }
    std::string LastWhy()
    {
        const std::lock_guard lock(m_mutex);
        return m_lastWhy;
    }

  private:
    std::mutex m_mutex;
    int m_expected = 0;
    int m_ended = 0;
    std::map<PublishResult, int> m_counts;
    std::string m_lastWhy;
};

OutgoingMessage Message(const std::string& exchange, const std::string& routingKey, bool mandatory = true)
{
    OutgoingMessage message;
    message.exchange = exchange;
    message.routingKey = routingKey;
    message.mandatory = mandatory;
    message.body = "body";
    return message;
}

} // namespace

/** One link with a queue that nobody consumes. */
class LinkPublish : public testing::Test
{
  protected:
    void Connect(LinkSettings settings = NodeSettings())
    {
        DesiredTopology desired;
        desired.ownQueues = {Queue(m_queue, 0)};
        m_link = std::make_unique<TestLink>(desired, std::move(settings));
    }

    /** What the broker calls the channel that this test publishes on; empty while it has none. */
    static std::string PublishingChannel()
    {
        const std::string channels = Rabbitmqctl("list_channels confirm pid");
        const std::size_t found = channels.find("true\t");
        return found == std::string::npos ? "" : channels.substr(found, channels.find('\n', found) - found);
    }

    /** Suspends or resumes a classic queue's process inside of the broker. */
    static void Tell(const std::string& what, const std::string& queue)
    {
        Rabbitmqctl(
            "eval '{ok, Queue} = rabbit_amqqueue:lookup(rabbit_misc:r(<<\"/\">>, queue, <<\"" + queue +
            "\">>)), sys:" + what + "(amqqueue:get_pid(Queue)).'");
    }

    /** Our port of the connection with this name; empty while there is none. */
    static std::string PortOf(const std::string& connection)
    {
        const std::string all = Rabbitmqctl("list_connections peer_port client_properties");
        const std::size_t found = all.find(connection);
        if (found == std::string::npos)
        {
            return {};
        }
        const std::size_t line = all.rfind('\n', found) + 1;
        return all.substr(line, all.find('\t', line) - line);
    }

    const std::string m_queue = Unique("queue");
    std::unique_ptr<TestLink> m_link;
    Outcomes m_outcomes;
};

TEST_F(LinkPublish, ConfirmedMeansThatTheQueueHasIt)
{
    Connect();
    EXPECT_EQ(m_link->Publish(Message("", m_queue)).first, PublishResult::confirmed);
    EXPECT_EQ(m_link->Count(m_queue), 1U);
}

TEST_F(LinkPublish, AMandatoryMessageThatNoQueueTakesIsToldSo)
{
    Connect();
    EXPECT_EQ(m_link->Publish(Message("", "no-queue")).first, PublishResult::noRoute);
    EXPECT_EQ(m_link->Publish(Message("amq.topic", "nobody")).first, PublishResult::noRoute);
    EXPECT_EQ(m_link->Publish(Message("", "no-queue", false)).first, PublishResult::confirmed);
}

TEST_F(LinkPublish, ManyReturnsAreToldApartFromManyConfirms)
{
    Connect();
    for (int i = 0; i < 300; ++i)
    {
        (*m_link)->Publish(Message("", i % 3 == 0 ? "no-queue" : m_queue), m_outcomes.Expect());
    }
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::noRoute), 100);
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), 200);
    EXPECT_EQ(m_link->Count(m_queue), 200U);
}

TEST_F(LinkPublish, OnlyTheMessageThatTheBrokerRefusesIsRefused)
{
    Connect();
    for (int i = 0; i < 200; ++i)
    {
        OutgoingMessage message = Message("", m_queue);
        if (i == 20)
        {
            message.exchange = "no-exchange";
        }
        if (i == 100)
        {
            message.properties.expiration = "abc";
        }
        if (i == 150)
        {
            message.properties.userId = "somebody-else";
        }
        (*m_link)->Publish(std::move(message), m_outcomes.Expect());
    }
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::refused), 3);
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), 197);
    EXPECT_GE(m_link->Count(m_queue), 197U);
}

TEST_F(LinkPublish, ARefusalSaysWhy)
{
    Connect();
    const auto [result, why] = m_link->Publish(Message("no-exchange", "x"));
    EXPECT_EQ(result, PublishResult::refused);
    EXPECT_THAT(why, HasSubstr("no exchange 'no-exchange'"));
    const std::string user = Unique("user");
    Rabbitmqctl("add_user " + user + " secret");
    Rabbitmqctl("set_permissions " + user + " '^$' '^$' '^$'");
    LinkSettings settings = NodeSettings();
    settings.user = user;
    settings.password = "secret";
    TestLink powerless({}, settings);
    EXPECT_EQ(powerless.Publish(Message("", m_queue)).first, PublishResult::refused);
}

TEST_F(LinkPublish, WhatCannotBeEncodedIsRefusedWithoutTheBroker)
{
    LinkSettings settings = NodeSettings();
    settings.maxBodyBytes = 1000;
    Connect(settings);
    OutgoingMessage message = Message("", std::string(256, 'k'));
    EXPECT_EQ(m_link->Publish(message).first, PublishResult::refused);
    message = Message("", m_queue);
    message.properties.correlationId = std::string(256, 'c');
    EXPECT_EQ(m_link->Publish(message).first, PublishResult::refused);
    message = Message("", m_queue);
    message.properties.headers = {{"k", RmqValue::String(std::string(200000, 'h'))}};
    EXPECT_EQ(m_link->Publish(message).first, PublishResult::refused);
    message = Message("", m_queue);
    message.body.resize(1001);
    EXPECT_EQ(m_link->Publish(message).first, PublishResult::refused);
    EXPECT_EQ(m_link->Publish(Message("", m_queue)).first, PublishResult::confirmed);
}

TEST_F(LinkPublish, TooMuchAtATimeIsOverload)
{
    LinkSettings settings = NodeSettings();
    settings.maxUnconfirmed = 10;
    Connect(settings);
    Rabbitmqctl("set_vm_memory_high_watermark 0");
    for (int i = 0; i < 15; ++i)
    {
        (*m_link)->Publish(Message("", m_queue), m_outcomes.Expect());
    }
    EXPECT_TRUE(Eventually([&] { return m_outcomes.Count(PublishResult::overloaded) == 5; }));
    Rabbitmqctl("set_vm_memory_high_watermark 0.4");
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), 10);
    EXPECT_EQ(m_link->Publish(Message("", m_queue)).first, PublishResult::confirmed) << "there is room again";
}

TEST_F(LinkPublish, BehindALargeMessageSmallOnesHaveRoom)
{
    LinkSettings settings = NodeSettings();
    settings.maxUnconfirmedBytes = 10000;
    Connect(settings);
    Rabbitmqctl("set_vm_memory_high_watermark 0");
    OutgoingMessage large = Message("", m_queue);
    large.body.resize(20000);
    (*m_link)->Publish(large, m_outcomes.Expect());
    (*m_link)->Publish(large, m_outcomes.Expect());
    OutgoingMessage manyHeaders = Message("", m_queue);
    manyHeaders.properties.headers.resize(500, {"k", RmqValue{}});
    (*m_link)->Publish(manyHeaders, m_outcomes.Expect());
    (*m_link)->Publish(Message("", m_queue), m_outcomes.Expect());
    EXPECT_TRUE(Eventually([&] { return m_outcomes.Count(PublishResult::overloaded) == 2; }));
    Rabbitmqctl("set_vm_memory_high_watermark 0.4");
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), 2);
}

TEST_F(LinkPublish, AChannelThatNacksOneQueueIsOpenedAnewWhileOthersGoOn)
{
    Connect();
    const std::string full = Unique("full");
    QueueSpec spec = Queue(full, 0);
    spec.arguments = {{"x-max-length", RmqValue::Integer(1)}, {"x-overflow", RmqValue::String("reject-publish")}};
    ASSERT_EQ((*m_link)->DeclareQueue(spec, DEADLINE).answer, Answer::ok);
    ASSERT_EQ(m_link->Publish(Message("", full)).first, PublishResult::confirmed);
    const std::string before = PublishingChannel();
    (*m_link)->Publish(Message("", full), m_outcomes.Expect());
    std::uint32_t others = 0;
    EXPECT_TRUE(Eventually(
        [&]
        {
            m_link->Send(m_queue, "other");
            ++others;
            const std::string now = PublishingChannel();
            return !now.empty() && now != before;
        }));
    Rabbitmqctl("purge_queue " + full);
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), 1) << m_outcomes.LastWhy();
    EXPECT_EQ(m_link->Count(m_queue), others) << "nothing was on its way when the channel was closed";
}

TEST_F(LinkPublish, AChannelThatAnswersNothingIsLeftWhereThereAreOtherNodes)
{
    LinkSettings settings = NodeSettings();
    settings.urls.push_back(settings.urls.front());
    Connect(settings);
    const std::string stuck = Unique("stuck");
    ASSERT_EQ((*m_link)->DeclareQueue(Queue(stuck, 0), DEADLINE).answer, Answer::ok);
    Tell("suspend", stuck);
    (*m_link)->Publish(Message("", stuck), m_outcomes.Expect());
    const auto port = [&] { return PortOf(settings.connectionName + " publishing"); };
    std::string before;
    EXPECT_TRUE(Eventually([&] { return !(before = port()).empty(); }));
    EXPECT_TRUE(Eventually([&, now = std::string()]() mutable { return !(now = port()).empty() && now != before; }));
    Tell("resume", stuck);
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), 1) << m_outcomes.LastWhy();
}

TEST_F(LinkPublish, ABlockedBrokerIsWaitedForAndConsumingGoesOn)
{
    Connect();
    Rabbitmqctl("set_vm_memory_high_watermark 0");
    (*m_link)->Publish(Message("", m_queue), m_outcomes.Expect());
    EXPECT_TRUE(Eventually([&] { return (*m_link)->Status().blocked; }));
    OutgoingMessage hurried = Message("", m_queue);
    hurried.deadline = std::chrono::milliseconds(100);
    const auto [result, why] = m_link->Publish(std::move(hurried));
    EXPECT_EQ(result, PublishResult::notSent);
    EXPECT_THAT(why, HasSubstr("the broker takes no messages"));
    EXPECT_EQ((*m_link)->Bind({{m_queue, "amq.topic", "t"}}, DEADLINE).front().answer, Answer::ok);
    Rabbitmqctl("set_vm_memory_high_watermark 0.4");
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), 1);
    EXPECT_TRUE(Eventually([&] { return !(*m_link)->Status().blocked; }));
}

TEST_F(LinkPublish, ConnectionsThatEndLoseNothing)
{
    Connect();
    std::atomic<bool> stop{false};
    int published = 0;
    std::thread publisher(
        [&]
        {
            while (!stop && published < 200000)
            {
                (*m_link)->Publish(Message("", m_queue), m_outcomes.Expect());
                if (++published % 500 == 0)
                {
                    // Bounded: the limit on what is unconfirmed would answer `overloaded`.
                    m_outcomes.WaitForAll();
                }
            }
        });
    Rabbitmqctl("close_all_connections 'a test wants it'");
    Rabbitmqctl("close_all_connections 'a test wants it'");
    stop = true;
    publisher.join();
    ASSERT_TRUE(m_outcomes.WaitForAll());
    EXPECT_EQ(m_outcomes.Count(PublishResult::confirmed), published);
    EXPECT_GE(m_link->Count(m_queue), static_cast<std::uint32_t>(published));
}

} // namespace VtxQel

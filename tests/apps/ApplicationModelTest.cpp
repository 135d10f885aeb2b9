// Random histories of an application, its instances, its queues on the broker and time, against what always has to
// hold.

#include "apps/Application.h"
#include "apps/AppsFakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <list>
#include <random>
#include <set>
#include <thread>

namespace VtxQel
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using Kind = ApplicationVerdict::Kind;

/** The ordering key of a message. */
int KeyOf(int number)
{
    return number % 3;
}

/**
 * The broker as far as one application sees it: a client queue, a parking queue that is consumed in order, and
 * settlement. Any thread may call; one mutex, never held while the application is called.
 */
class ModelBroker : public ParkingQueues
{
  public:
    /** One delivery's answer. */
    class ModelReceipt : public Receipt
    {
      public:
        ModelReceipt(ModelBroker& broker, int number, std::uint64_t consumption)
            : m_broker(broker), m_number(number), m_consumption(consumption)
        {
        }
        void Done() override { m_broker.Settle(*this, false); }
        void Dead(const std::string&, std::uint32_t) override { m_broker.Settle(*this, false); }
        void Park(std::uint32_t) override { m_broker.Settle(*this, true); }

      private:
        friend class ModelBroker;
        ModelBroker& m_broker;
        const int m_number;
        /** Which consumption of the parking queue it came from; 0 is the client queue. */
        const std::uint64_t m_consumption;
        bool m_answered = false;
    };

    void Consume(const std::string&, std::uint32_t window) override
    {
        const std::lock_guard lock(m_mutex);
        m_consuming = true;
        m_prefetch = window;
    }
    void SendMarker(const std::string&, std::uint64_t marker, std::function<void(bool)> completion) override
    {
        const std::lock_guard lock(m_mutex);
        const std::uint_fast32_t luck = m_random() % 10;
        if (luck != 0)
        {
            m_parked.push_back({0, marker});
        }
        // Now and then one that has arrived is reported as failed.
        m_completions.emplace_back(std::move(completion), luck > 1);
    }
    void Release(const std::string&) override
    {
        const std::lock_guard lock(m_mutex);
        m_consuming = false;
        ++m_consumption;
        for (auto position = m_unsettled.rbegin(); position != m_unsettled.rend(); ++position)
        {
            m_parked.push_front({*position, 0});
        }
        m_unsettled.clear();
    }

    /** Delivers the next message of the client queue. */
    void DeliverLive(Application& application)
    {
        const std::lock_guard order(m_liveOrder);
        Offer(application, m_nextLive++, 0);
    }
    /** Delivers what the parking queue's consumer may have next; `false` when that is nothing. */
    bool DeliverParked(Application& application)
    {
        const std::lock_guard order(m_parkedOrder);
        std::unique_lock lock(m_mutex);
        if (!m_consuming || m_parked.empty() || m_unsettled.size() >= m_prefetch)
        {
            return false;
        }
        const auto [number, marker] = m_parked.front();
        m_parked.pop_front();
        const std::uint64_t consumption = m_consumption;
        if (number != 0)
        {
            m_unsettled.push_back(number);
        }
        lock.unlock();
        if (number == 0)
        {
            application.MarkerReturned(marker);
        }
        else
        {
            Offer(application, number, consumption);
        }
        return true;
    }
    void CompleteMarkers()
    {
        std::unique_lock lock(m_mutex);
        const auto completions = std::exchange(m_completions, {});
        lock.unlock();
        for (const auto& [completion, sent] : completions)
        {
            completion(sent);
        }
    }
    void Seed(unsigned seed) { m_random.seed(seed); }

    /** How often each message was settled for good. */
    std::map<int, int> Settled() const
    {
        const std::lock_guard lock(m_mutex);
        return m_settled;
    }
    int Delivered() const { return m_nextLive - 1; }
    /** Answers to receipts that had one, or whose delivery the broker has taken back. */
    int WrongAnswers() const { return m_secondAnswers; }
    int LateAnswers() const { return m_lateAnswers; }

  private:
    struct Parked
    {
        int number;
        std::uint64_t marker;
    };

    void Offer(Application& application, int number, std::uint64_t consumption)
    {
        application.Offer(
            boost::make_shared<FakeDelivery>(
                m_log,
                FakeMessage{
                    .body = std::to_string(number),
                    .routingKey = std::to_string(KeyOf(number)),
                    .parkedFor = consumption == 0 ? "" : "app"}),
            boost::make_shared<ModelReceipt>(*this, number, consumption));
    }
    void Settle(ModelReceipt& receipt, bool park)
    {
        const std::lock_guard lock(m_mutex);
        if (receipt.m_answered)
        {
            ++m_secondAnswers;
            return;
        }
        receipt.m_answered = true;
        if (receipt.m_consumption != 0)
        {
            const auto position = std::find(m_unsettled.begin(), m_unsettled.end(), receipt.m_number);
            if (receipt.m_consumption != m_consumption || position == m_unsettled.end())
            {
                ++m_lateAnswers;
                return;
            }
            m_unsettled.erase(position);
        }
        if (park)
        {
            m_parked.push_back({receipt.m_number, 0});
        }
        else
        {
            ++m_settled[receipt.m_number];
        }
    }

    AnswerLog m_log;
    std::mutex m_liveOrder;
    std::mutex m_parkedOrder;
    mutable std::mutex m_mutex;
    std::mt19937 m_random;
    std::atomic<int> m_nextLive{1};
    bool m_consuming = false;
    std::size_t m_prefetch = 0;
    std::uint64_t m_consumption = 1;
    std::list<Parked> m_parked;
    std::list<int> m_unsettled;
    std::vector<std::pair<std::function<void(bool)>, bool>> m_completions;
    std::map<int, int> m_settled;
    std::atomic<int> m_secondAnswers{0};
    std::atomic<int> m_lateAnswers{0};
};

/** Notes in which order messages are given to the application for the first time, whichever instance gets them. */
class FirstDeliveries
{
  public:
    /** @param byKey whether only messages of the same key have to be in order. */
    explicit FirstDeliveries(bool byKey) : m_byKey(byKey) {}

    void Note(int number)
    {
        const std::lock_guard lock(m_mutex);
        if (m_seen.insert(number).second)
        {
            int& last = m_last[m_byKey ? KeyOf(number) : 0];
            m_inOrder = m_inOrder && number > last;
            last = number;
        }
    }
    bool InOrder() const
    {
        const std::lock_guard lock(m_mutex);
        return m_inOrder;
    }

  private:
    mutable std::mutex m_mutex;
    const bool m_byKey;
    std::set<int> m_seen;
    std::map<int, int> m_last;
    bool m_inOrder = true;
};

class ModelSession : public ApplicationSession
{
  public:
    explicit ModelSession(FirstDeliveries& deliveries) : m_deliveries(deliveries) {}

    void Enqueue(SessionDelivery delivery) override
    {
        const int number = std::stoi(delivery.message->ToString());
        m_deliveries.Note(number);
        const std::lock_guard lock(m_mutex);
        m_unanswered.emplace_back(delivery.id, number);
    }
    std::vector<std::uint64_t> Recall() override
    {
        // The last one was not sent yet.
        const std::lock_guard lock(m_mutex);
        std::vector<std::uint64_t> ids;
        if (!m_unanswered.empty())
        {
            ids.push_back(m_unanswered.back().first);
            m_unanswered.pop_back();
        }
        return ids;
    }
    void Flush() override {}
    void End(SessionEnd, const std::string&) override { m_ended = true; }
    const std::string& Instance() const override { return m_instance; }
    bool HasEnded() const { return m_ended; }

    /** One that has come and is not answered, nearly in order. */
    std::optional<std::uint64_t> Pick(std::uint_fast32_t luck)
    {
        const std::lock_guard lock(m_mutex);
        if (m_unanswered.empty())
        {
            return std::nullopt;
        }
        const std::size_t position = luck % std::min<std::size_t>(m_unanswered.size(), 3);
        const std::uint64_t id = m_unanswered[position].first;
        m_unanswered.erase(m_unanswered.begin() + static_cast<std::ptrdiff_t>(position));
        return id;
    }

    /** The ordering keys of what is unanswered. */
    std::set<int> Keys() const
    {
        const std::lock_guard lock(m_mutex);
        std::set<int> keys;
        for (const auto& [id, number] : m_unanswered)
        {
            keys.insert(KeyOf(number));
        }
        return keys;
    }

  private:
    FirstDeliveries& m_deliveries;
    const std::string m_instance = "model";
    std::atomic<bool> m_ended{false};
    mutable std::mutex m_mutex;
    std::vector<std::pair<std::uint64_t, int>> m_unanswered;
};

/** Everything together; each action may be called from any thread. */
class World
{
  public:
    /** @param byKey whether the application wants order by routing key. */
    World(unsigned seed, bool byKey) : m_deliveries(byKey)
    {
        m_broker.Seed(seed);
        ApplicationSettings settings = SettingsOf("app", 4);
        settings.ackTimeout = seconds(5);
        settings.maxTries = 1000000;
        settings.orderingKey = byKey ? "routing_key" : "";
        m_application = boost::make_shared<Application>(
            settings, ApplicationContext{m_budget, m_broker, m_timers, milliseconds(250), {}});
    }

    /** An instance with its id, driven by one thread. */
    struct Instance
    {
        boost::shared_ptr<ModelSession> session;
        Application::SessionId id = 0;
    };

    void Attach(Instance& instance, std::uint_fast32_t luck)
    {
        if (!instance.session || instance.session->HasEnded())
        {
            instance.session = boost::make_shared<ModelSession>(m_deliveries);
            instance.id = m_application->Attach(instance.session, static_cast<std::uint32_t>(1 + luck % 4)).value();
        }
    }
    void Detach(Instance& instance)
    {
        if (instance.session)
        {
            m_application->Detach(instance.id);
            instance.session.reset();
        }
    }
    void Leave(Instance& instance)
    {
        if (instance.session)
        {
            m_application->Leave(instance.id);
        }
    }
    bool Answer(Instance& instance, std::uint_fast32_t luck, bool mayRetry)
    {
        const auto id = instance.session ? instance.session->Pick(luck) : std::nullopt;
        if (!id)
        {
            return false;
        }
        const Kind kind = mayRetry && luck % 7 == 0 ? Kind::retry : Kind::done;
        EXPECT_EQ(m_application->Answer(instance.id, {{*id, kind, "", milliseconds(luck % 300)}}), std::nullopt);
        return true;
    }
    /** Lets one instance that answers everything take all there is. */
    void Finish(Instance& instance)
    {
        for (int idle = 0; idle < 50;)
        {
            Attach(instance, 3);
            m_broker.CompleteMarkers();
            const bool parked = m_broker.DeliverParked(*m_application);
            const bool answered = Answer(instance, 0, false);
            idle = parked || answered ? 0 : idle + 1;
            m_timers.Step(milliseconds(parked || answered ? 1 : 1000));
        }
    }
    void ExpectAllSettledOnce()
    {
        const auto settled = m_broker.Settled();
        EXPECT_EQ(settled.size(), static_cast<std::size_t>(m_broker.Delivered()));
        for (const auto& [number, count] : settled)
        {
            EXPECT_EQ(count, 1) << "message " << number;
        }
        EXPECT_EQ(m_broker.WrongAnswers(), 0);
        EXPECT_TRUE(m_deliveries.InOrder());
        EXPECT_EQ(m_application->Snapshot().flow, ApplicationFlow::live);
        EXPECT_EQ(m_budget.Held().messages, 0U);
        EXPECT_EQ(m_budget.Held().bytes, 0U);
    }

    ModelBroker m_broker;
    FakeTimers m_timers;
    HoldBudget m_budget{12, 1000};
    FirstDeliveries m_deliveries;
    boost::shared_ptr<Application> m_application;
};

/** No key's messages are in the hands of two instances. */
void ExpectKeysApart(const std::array<World::Instance, 3>& instances)
{
    std::set<int> held;
    for (const World::Instance& instance : instances)
    {
        if (instance.session && !instance.session->HasEnded())
        {
            for (const int key : instance.session->Keys())
            {
                EXPECT_TRUE(held.insert(key).second) << "key " << key;
            }
        }
    }
}

void RunHistory(unsigned seed)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const bool byKey = seed % 2 == 0;
    World world(seed, byKey);
    std::array<World::Instance, 3> instances;
    const std::uint_fast32_t liveliness = 1 + random() % 8;
    for (int step = 0; step < 600; ++step)
    {
        World::Instance& instance = instances[random() % instances.size()];
        const std::uint_fast32_t luck = random();
        switch (random() % 12)
        {
        case 0:
            world.Attach(instance, luck);
            break;
        case 1:
            luck % 4 == 0   ? world.Detach(instance)
            : luck % 4 == 1 ? world.Leave(instance)
                            : world.Attach(instance, luck);
            break;
        case 2:
            world.m_broker.CompleteMarkers();
            break;
        case 3:
            world.m_timers.Step(milliseconds(luck % (luck % 50 == 0 ? 6000 : 200)));
            break;
        case 4:
        case 5:
        case 6:
        case 7:
            for (std::uint_fast32_t count = 0; count < luck % liveliness; ++count)
            {
                world.m_broker.DeliverLive(*world.m_application);
            }
            break;
        case 8:
        case 9:
            world.m_broker.DeliverParked(*world.m_application);
            break;
        default:
            world.Answer(instance, luck, true);
        }
        if (byKey)
        {
            ExpectKeysApart(instances);
        }
    }
    world.Finish(instances[0]);
    for (World::Instance& instance : instances)
    {
        world.Detach(instance);
    }
    world.Finish(instances[0]);
    EXPECT_EQ(world.m_broker.LateAnswers(), 0);
    world.ExpectAllSettledOnce();
}

TEST(ApplicationModel, EveryHistoryEndsWithOneAnswerForEachMessageInOrder)
{
    const unsigned first = std::random_device()();
    RecordProperty("seed", static_cast<int>(first));
    for (unsigned run = 0; run < 150 && !testing::Test::HasFailure(); ++run)
    {
        RunHistory(first + run);
    }
    for (unsigned seed = 1; seed <= 50 && !testing::Test::HasFailure(); ++seed)
    {
        RunHistory(seed);
    }
}

TEST(ApplicationModel, ThreadsAtWorkTogetherLoseNothing)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    World world(seed, seed % 2 == 0);
    std::array<World::Instance, 2> instances;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back(
        [&world, &stop]
        {
            for (int number = 0; number < 3000; ++number)
            {
                world.m_broker.DeliverLive(*world.m_application);
                std::this_thread::yield();
            }
            stop = true;
        });
    threads.emplace_back(
        [&world, &stop]
        {
            while (!stop)
            {
                world.m_broker.DeliverParked(*world.m_application);
                world.m_broker.CompleteMarkers();
                world.m_timers.Step(milliseconds(1));
            }
        });
    for (World::Instance& instance : instances)
    {
        threads.emplace_back(
            [&world, &stop, &instance, random = std::mt19937(seed)]() mutable
            {
                while (!stop)
                {
                    world.Attach(instance, random());
                    for (int count = 0; count < 20; ++count)
                    {
                        world.Answer(instance, random(), true);
                    }
                    const std::uint_fast32_t luck = random() % 20;
                    if (luck == 0)
                    {
                        world.Leave(instance);
                    }
                    else if (luck == 1)
                    {
                        world.Detach(instance);
                    }
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    world.Finish(instances[0]);
    world.Detach(instances[1]);
    world.Finish(instances[0]);
    const auto settled = world.m_broker.Settled();
    EXPECT_EQ(settled.size(), 3000U);
    EXPECT_EQ(world.m_broker.WrongAnswers(), 0);
    EXPECT_EQ(world.m_budget.Held().messages, 0U);
}

} // namespace
} // namespace VtxQel

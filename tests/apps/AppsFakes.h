#pragma once

#include "apps/ApplicationSession.h"
#include "apps/ApplicationSettings.h"
#include "apps/ParkingQueues.h"
#include "apps/Timers.h"
#include "common/Delivery.h"
#include "common/Footprint.h"

#include <boost/smart_ptr/make_shared.hpp>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{

/** Settings as drop-ins have them, with a small window and few tries. */
inline ApplicationSettings SettingsOf(const std::string& name, std::uint32_t window = 10)
{
    ApplicationSettings settings;
    settings.name = name;
    settings.window = window;
    settings.maxTries = 3;
    return settings;
}

/** One answer that a receipt got: who, for which body, what. */
struct RecordedAnswer
{
    std::string application;
    std::string body;
    /** "done", "dead:REASON" or "park". */
    std::string what;
    std::uint32_t tries = 0;

    std::string ToString() const { return body + " " + what; }
};

/** What became of the deliveries of a test, in order. */
class AnswerLog
{
  public:
    void Add(RecordedAnswer answer)
    {
        const std::lock_guard lock(m_mutex);
        m_answers.push_back(std::move(answer));
    }
    std::vector<RecordedAnswer> All() const
    {
        const std::lock_guard lock(m_mutex);
        return m_answers;
    }
    /** "body what" of each, and forgets them. */
    std::vector<std::string> Take()
    {
        const std::lock_guard lock(m_mutex);
        std::vector<std::string> texts;
        for (const RecordedAnswer& answer : m_answers)
        {
            texts.push_back(answer.ToString());
        }
        m_answers.clear();
        return texts;
    }

  private:
    mutable std::mutex m_mutex;
    std::vector<RecordedAnswer> m_answers;
};

/** Records every answer, a second one as well. */
class FakeReceipt : public Receipt
{
  public:
    FakeReceipt(AnswerLog& log, std::string application, std::string body)
        : m_log(log), m_application(std::move(application)), m_body(std::move(body))
    {
    }
    void Done() override { m_log.Add({m_application, m_body, "done", 0}); }
    void Dead(const std::string& reason, std::uint32_t tries) override
    {
        m_log.Add({m_application, m_body, "dead:" + reason, tries});
    }
    void Park(std::uint32_t tries) override
    {
        m_log.Add({m_application, m_body, "park", tries});
        if (onPark)
        {
            onPark(m_body);
        }
    }

    std::function<void(const std::string& body)> onPark;

  private:
    AnswerLog& m_log;
    const std::string m_application;
    const std::string m_body;
};

/** What a FakeDelivery is made of. */
struct FakeMessage
{
    std::string body;
    std::string queue = "client";
    std::string routingKey = {};
    std::string parkedFor = {};
    std::uint32_t tries = 0;
    bool redelivered = false;
    RmqProperties properties = {};
};

/** A message from nowhere that remembers whom it is expected to reach. */
class FakeDelivery : public Delivery
{
  public:
    FakeDelivery(AnswerLog& log, FakeMessage message)
        : m_log(log), m_message(std::move(message)),
          m_properties(boost::make_shared<RmqProperties>(m_message.properties)), m_body(boost::make_shared<Body>())
    {
        m_body->bytes = m_message.body;
        m_body->record = {m_body->bytes.size(), reinterpret_cast<const std::uint8_t*>(m_body->bytes.data())};
    }
    boost::shared_ptr<RmqBody> GetBody() const override { return {m_body, &m_body->record}; }
    std::size_t GetBodyLength() const override { return m_message.body.size(); }
    const std::string& GetAppName() const override { return m_message.properties.appId; }
    boost::shared_ptr<RmqProperties> GetProperties() const override { return m_properties; }
    std::string ToString() const override { return m_message.body; }
    const std::string& GetExchange() const override { return m_exchange; }
    const std::string& GetRoutingKey() const override { return m_message.routingKey; }
    const std::string& GetQueue() const override { return m_message.queue; }
    bool IsRedelivered() const override { return m_message.redelivered; }
    std::uint32_t GetTries() const override { return m_message.tries; }
    std::size_t GetFootprint() const override { return GetBodyLength() + FootprintOf(*GetProperties()); }
    const std::string& GetParkedFor() const override { return m_message.parkedFor; }
    bool IsCurrent() const override { return isCurrent; }
    boost::shared_ptr<Receipt> Expect(const std::string& application) override
    {
        const std::lock_guard lock(m_mutex);
        m_expected.push_back(application);
        auto receipt = boost::make_shared<FakeReceipt>(m_log, application, m_message.body);
        receipt->onPark = onPark;
        return receipt;
    }
    std::vector<std::string> Expected() const
    {
        const std::lock_guard lock(m_mutex);
        return m_expected;
    }

    std::function<void(const std::string& body)> onPark;
    std::atomic<bool> isCurrent{true};

  private:
    /** Outlives the message with whoever holds the record. */
    struct Body
    {
        std::string bytes;
        RmqBody record{};
    };

    AnswerLog& m_log;
    const FakeMessage m_message;
    const std::string m_exchange = "exchange";
    const boost::shared_ptr<RmqProperties> m_properties;
    const boost::shared_ptr<Body> m_body;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_expected;
};

/** Time that stands still until it is stepped. */
class FakeTimers : public Timers
{
  public:
    Clock::time_point Now() const override
    {
        const std::lock_guard lock(m_mutex);
        return m_now;
    }
    void After(Clock::duration delay, std::function<void()> task) override
    {
        const std::lock_guard lock(m_mutex);
        m_tasks.emplace(m_now + delay, std::move(task));
    }
    /** Lets time pass, task by task. */
    void Step(Clock::duration time)
    {
        std::unique_lock lock(m_mutex);
        const Clock::time_point end = m_now + time;
        while (!m_tasks.empty() && m_tasks.begin()->first <= end)
        {
            m_now = std::max(m_now, m_tasks.begin()->first);
            const std::function<void()> task = std::move(m_tasks.begin()->second);
            m_tasks.erase(m_tasks.begin());
            m_hasRun = true;
            lock.unlock();
            task();
            lock.lock();
        }
        m_now = end;
    }
    /** Whether anything has been due so far. */
    bool HasRun() const
    {
        const std::lock_guard lock(m_mutex);
        return m_hasRun;
    }

  private:
    mutable std::mutex m_mutex;
    bool m_hasRun = false;
    Clock::time_point m_now{std::chrono::hours(1000)};
    std::multimap<Clock::time_point, std::function<void()>> m_tasks;
};

/** Records what is asked for, as "consume app 10", "marker app", "release app", "stop app". */
class FakeParkingQueues : public ParkingQueues
{
  public:
    void Consume(const std::string& application, std::uint32_t window) override
    {
        Record("consume " + application + " " + std::to_string(window));
    }
    void SendMarker(
        const std::string& application, std::uint64_t marker, std::function<void(bool sent)> completion) override
    {
        Record("marker " + application);
        const std::lock_guard lock(m_mutex);
        m_markers.emplace_back(marker, std::move(completion));
    }
    void Release(const std::string& application) override { Record("release " + application); }

    /** The number of the marker sent last. */
    std::uint64_t LastMarker() const
    {
        const std::lock_guard lock(m_mutex);
        return m_markers.back().first;
    }
    void CompleteLastMarker(bool sent)
    {
        std::unique_lock lock(m_mutex);
        const auto completion = m_markers.back().second;
        lock.unlock();
        completion(sent);
    }
    std::vector<std::string> Take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_calls, {});
    }

  private:
    void Record(const std::string& call)
    {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::vector<std::pair<std::uint64_t, std::function<void(bool)>>> m_markers;
};

/** An instance that notes what it gets. */
class FakeSession : public ApplicationSession
{
  public:
    void Enqueue(SessionDelivery delivery) override
    {
        const std::lock_guard lock(m_mutex);
        m_deliveries.push_back(std::move(delivery));
    }
    std::vector<std::uint64_t> Recall() override
    {
        const std::lock_guard lock(m_mutex);
        std::vector<std::uint64_t> ids;
        while (!m_deliveries.empty() && ids.size() < unsent)
        {
            ids.push_back(m_deliveries.back().id);
            m_deliveries.pop_back();
        }
        return ids;
    }
    void Flush() override
    {
        const std::lock_guard lock(m_mutex);
        ++m_flushes;
    }
    void End(SessionEnd why, const std::string& text) override
    {
        const std::lock_guard lock(m_mutex);
        m_ends.emplace_back(why, text);
    }
    const std::string& Instance() const override { return m_instance; }

    /** What came and was not taken out yet. */
    std::vector<SessionDelivery> Take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_deliveries, {});
    }
    /** The bodies of Take(). */
    std::vector<std::string> TakeBodies()
    {
        std::vector<std::string> bodies;
        for (const SessionDelivery& delivery : Take())
        {
            bodies.push_back(delivery.message->ToString());
        }
        return bodies;
    }
    std::vector<std::pair<SessionEnd, std::string>> Ends() const
    {
        const std::lock_guard lock(m_mutex);
        return m_ends;
    }
    std::size_t Flushes() const
    {
        const std::lock_guard lock(m_mutex);
        return m_flushes;
    }

    /** How many of the last deliveries were not sent yet. */
    std::size_t unsent = 0;

  private:
    const std::string m_instance = "fake";
    mutable std::mutex m_mutex;
    std::vector<SessionDelivery> m_deliveries;
    std::vector<std::pair<SessionEnd, std::string>> m_ends;
    std::size_t m_flushes = 0;
};

} // namespace VtxQel

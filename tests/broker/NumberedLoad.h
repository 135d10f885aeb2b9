#pragma once

#include "broker/LinkHarness.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace VtxQel
{

/** Publishes numbered messages to a queue, steadily and confirmed, on a thread and a connection of its own. */
class NumberedLoad
{
  public:
    NumberedLoad(const std::string& url, std::string queue, std::size_t perSecond);
    ~NumberedLoad();
    NumberedLoad(const NumberedLoad&) = delete;
    NumberedLoad& operator=(const NumberedLoad&) = delete;

    /** Ends the load. @return how many messages were published; all are confirmed. */
    std::size_t Stop();

  private:
    void Run();

    TestLink m_link;
    const std::string m_queue;
    const std::chrono::microseconds m_pause;
    std::atomic<bool> m_stopping{false};
    std::atomic<std::size_t> m_confirmed{0};
    std::size_t m_published = 0;
    std::thread m_thread;
};

/** What came of numbered messages. */
struct Arrivals
{
    std::size_t lost = 0;
    std::size_t duplicates = 0;
    /** Messages that came later than one with a higher number. */
    std::size_t outOfOrder = 0;
    std::size_t redelivered = 0;
    std::chrono::milliseconds longestGap{0};

    std::string ToString() const;
};

/** Settles every delivery as it comes and takes notes of it. */
class SettlingListener : public RecordingListener
{
  public:
    /** Before the link is started. @param link settles; outlives the listener's use */
    void SettleWith(BrokerLink& link) { m_link = &link; }
    void OnDelivery(IncomingMessage&& message) override;

    std::size_t Count() const;
    /** Waits until each of the numbers from 0 to `count` has come. */
    bool WaitForAll(std::size_t count) const;
    /** @param count how many were published */
    Arrivals Judge(std::size_t count) const;

  private:
    struct Arrival
    {
        std::size_t number = 0;
        bool redelivered = false;
        std::chrono::steady_clock::time_point at;
    };

    BrokerLink* m_link = nullptr;
    mutable std::mutex m_mutex;
    std::vector<Arrival> m_arrivals;
    std::vector<bool> m_seen;
    std::size_t m_different = 0;
};

} // namespace VtxQel

#pragma once

#include "apps/ApplicationSession.h"
#include "apps/ApplicationSettings.h"
#include "apps/HoldBudget.h"
#include "apps/KeyedInstances.h"
#include "apps/ParkingQueues.h"
#include "apps/Timers.h"
#include "common/Delivery.h"

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace VtxQel
{

/** An instance's answer for a delivery. */
struct ApplicationVerdict
{
    enum class Kind
    {
        done,
        retry,
        dead
    };
    std::uint64_t deliveryId = 0;
    Kind kind = Kind::done;
    std::string reason;
    std::chrono::milliseconds retryDelay{0};
};

/** How an application's messages travel. */
enum class ApplicationFlow
{
    /** No instance, or too slow: what comes from the client queues goes to the parking queue. */
    parked,
    /** The parking queue is being consumed; what comes from the client queues goes to its end. */
    draining,
    /** The rest of the parking queue is on its way; what comes from the client queues waits in memory. */
    switching,
    /** From the client queues straight to the instances. */
    live
};

/** An application at one moment, for status pages. */
struct ApplicationSnapshot
{
    ApplicationFlow flow = ApplicationFlow::parked;
    std::size_t sessions = 0;
    std::uint64_t window = 0;
    std::size_t pending = 0;
    std::size_t inFlight = 0;
    std::size_t waitingForRetry = 0;
    std::size_t heldBytes = 0;
    std::uint64_t delivered = 0;
    std::uint64_t done = 0;
    std::uint64_t retried = 0;
    std::uint64_t dead = 0;
    std::uint64_t tooManyTries = 0;
    std::uint64_t parked = 0;
    std::uint64_t overdue = 0;
};

/** What applications share. The referred objects outlive every application. */
struct ApplicationContext
{
    HoldBudget& budget;
    ParkingQueues& parking;
    Timers& timers;
    /** How long an application may hold more than its share before it counts as slow. */
    std::chrono::milliseconds slowAfter{250};
    /** Told the name at an application's first attach. Called with its lock held: must only take a note. */
    std::function<void(const std::string& application)> firstAttached = nullptr;
};

/**
 * Application brings one application's messages to its attached instances, in order, and answers each message's receipt
 * exactly once.
 *
 * An application that is absent or slow keeps nobody waiting: its messages move to its parking queue on the broker, and
 * come back from there, in order, before it is live again. Two markers sent through the parking queue tell when it is
 * empty: the first that nearly everything has come, the second, behind which nothing was parked, that all has.
 *
 * Each message goes to the next instance with room in its window or, where the application wants that, to the one that
 * its ordering key is bound to. What that one has no room for waits apart and is in nobody's way.
 *
 * Any thread may call. One lock; under it only receipts, parking queues and sessions' Enqueue() are called, all of
 * which just take a note. Messages dropped unanswered (when stopping, or given back to the parking queue) are the
 * broker's to deliver again.
 */
class Application : public boost::enable_shared_from_this<Application>
{
  public:
    using SessionId = std::uint64_t;

    Application(ApplicationSettings settings, ApplicationContext context);
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    const std::string& Name() const { return m_name; }
    ApplicationSettings Settings() const;
    void UpdateSettings(const ApplicationSettings& settings);

    /** Takes a message that is for this application, with the receipt that answers for it. */
    void Offer(boost::shared_ptr<Delivery> message, boost::shared_ptr<Receipt> receipt);
    /** A marker came back from the parking queue. */
    void MarkerReturned(std::uint64_t marker);

    /**
     * Adds an instance. @param window 0 takes the configured one, which is also the most.
     * Nothing at all when the application is stopping or removed.
     */
    std::optional<SessionId> Attach(boost::shared_ptr<ApplicationSession> session, std::uint32_t window);
    /** Removes an instance; what it has not answered goes to others or waits. Idempotent. */
    void Detach(SessionId id);
    /**
     * The instance wants to go: it gets nothing more and is ended (SessionEnd::finished) when it has answered what it
     * has in hand. What is still on its way to it goes to others or waits.
     */
    void Leave(SessionId id);
    /** Takes verdicts in order. @return the first delivery id that wants no verdict; nothing behind it is taken. */
    std::optional<std::uint64_t> Answer(SessionId id, const std::vector<ApplicationVerdict>& verdicts);
    /** Replaces an instance's window, as in Attach(). */
    void SetWindow(SessionId id, std::uint32_t window);
    /** The window that an instance which asks for `wanted` gets. */
    std::uint32_t EffectiveWindow(std::uint32_t wanted) const;

    /** A connection to the broker is gone: what came by it and no instance has in its hands is dropped, the broker
     * delivers it again. */
    void DropUnsent();
    /** The parking queue may be another one than before, or new: a marker that was in it will not come back. */
    void Reconnected();

    /** Hands out nothing more; verdicts are still taken. */
    void StopDelivering();
    /** Ends every session and drops everything unanswered. The application takes nothing from then on. */
    void Stop(const std::string& why);
    /** As Stop(), but what came from the client queues is parked: the application is no longer configured. */
    void Remove(const std::string& why);

    ApplicationSnapshot Snapshot() const;

  private:
    using TimePoint = Timers::Clock::time_point;

    /** A message held for the application. */
    struct Item
    {
        std::uint64_t sequence = 0;
        boost::shared_ptr<Delivery> message;
        boost::shared_ptr<Receipt> receipt;
        std::size_t bytes = 0;
        std::uint32_t tries = 0;
        bool redelivered = false;
        bool fromParking = false;
        OrderingKey key = 0;
        /** When it came or, once sent, when it was sent. */
        TimePoint since;
    };

    struct Session
    {
        boost::shared_ptr<ApplicationSession> session;
        std::uint32_t window = 0;
        std::uint64_t lastDelivery = 0;
        std::map<std::uint64_t, Item> inFlight;
        /** What is bound to it by its ordering key and has no room in its window, in order. */
        std::deque<Item> waiting;
        bool leaving = false;

        bool HasRoom() const { return !leaving && inFlight.size() < window; }
    };
    using SessionPosition = std::map<SessionId, Session>::iterator;

    /** Calls to sessions that wait until the lock is released. */
    class Effects
    {
      public:
        ~Effects();
        void Flush(const boost::shared_ptr<ApplicationSession>& session);
        std::vector<boost::shared_ptr<ApplicationSession>> flush;
        std::vector<std::tuple<boost::shared_ptr<ApplicationSession>, SessionEnd, std::string>> end;
    };

    void OfferLive(Item item);
    void OfferSwitching(Item item);
    bool ExceedsOwnBound(std::size_t bytes) const;
    bool IsSlow(std::size_t bytes, TimePoint now);
    void Append(Item item);
    void Park(Item& item);
    void ParkAll(std::deque<Item>& items);
    void LetGo(Item& item);

    void StartDraining();
    void BecomeLive();
    void BecomeSlow(Item* last);
    void BecomeAbsent();
    void GiveBackParked();
    void SendMarker();
    void PublishMarker();
    void MarkerSent(std::uint64_t marker, bool sent);

    void Pump(Effects& effects);
    bool PumpOne(TimePoint now, Effects& effects);
    bool MaySend(const Item& item) const;
    void ServeWaiting(TimePoint now, Effects& effects);
    SessionPosition SessionFor(const Item& item);
    SessionPosition NextSession();
    void SendTo(SessionPosition position, Item item, TimePoint now, Effects& effects);
    void PutAside(SessionPosition position, Item item, TimePoint now);
    Item TakeInFlight(Session& session, std::map<std::uint64_t, Item>::iterator position);
    void TakeWaiting(Session& session, std::vector<Item>& items);
    void GatherWaiting();
    void EndWhenAnswered(SessionPosition position, Effects& effects);
    void Settle(Item item, const ApplicationVerdict& verdict);
    void Retry(Item item, std::chrono::milliseconds delay);
    void Bury(Item& item, const std::string& reason);
    void Requeue(std::vector<Item> items);
    void RemoveSession(SessionPosition position);
    void Shut(const std::string& why, bool park, Effects& effects);
    void CountAgainstOldest(std::vector<Item>& items);
    void LeaveBehind(std::deque<Item>& items);
    void MergeRetries();
    void DropUnanswered(std::deque<Item>& items, const std::function<bool(const Item&)>& which);
    std::uint32_t WindowFor(std::uint32_t wanted) const;

    void OnTimer();
    void ArmFor(TimePoint when);
    void ReturnRetries(TimePoint now);
    void EndOverdue(TimePoint now, Effects& effects);
    void CheckSlow(TimePoint now);
    std::optional<TimePoint> OldestHeld() const;
    void ResendMarker(TimePoint now);
    void EndAbsence(TimePoint now);

    const std::string m_name;
    const ApplicationContext m_context;

    mutable std::mutex m_mutex;
    /** Guarded by m_mutex, like everything below. */
    ApplicationSettings m_settings;
    ApplicationFlow m_flow = ApplicationFlow::parked;
    /** Whether the parking queue is consumed: since an instance attached, until none has been for a while. */
    bool m_consuming = false;
    bool m_delivering = true;
    bool m_closed = false;

    std::uint64_t m_nextSequence = 1;
    std::deque<Item> m_pending;
    /** While switching: what came from the client queues since the second marker. */
    std::deque<Item> m_behindMarker;
    std::multimap<TimePoint, Item> m_retries;

    SessionId m_lastSession = 0;
    std::map<SessionId, Session> m_sessions;
    /** Where the round robin goes on. */
    SessionId m_lastServed = 0;
    KeyedInstances m_keys;
    /** How many items wait for the room of one session. */
    std::size_t m_waiting = 0;

    std::uint64_t m_marker;
    bool m_parkedSinceMarker = false;
    bool m_markerSent = false;
    /** When the marker that could not be sent, or has not come back, is sent again. */
    std::optional<TimePoint> m_markerRetryAt;
    Timers::Clock::duration m_markerDelay;
    /** When messages that wait for an absent application's return are parked. */
    std::optional<TimePoint> m_absenceEndsAt;

    std::optional<TimePoint> m_armedFor;
    HeldAmount m_held;
    HeldAmount m_sent;
    ApplicationSnapshot m_counters;
};

} // namespace VtxQel

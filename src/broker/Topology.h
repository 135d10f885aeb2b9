#pragma once

#include "broker/BrokerLink.h"
#include "broker/Journal.h"
#include "common/RmqInfo.h"
#include "logging/RepeatedWarnings.h"

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace VtxQel
{

/** The requests by which Topology changes the broker. Synchronous, each within its own deadline. */
class TopologyPort
{
  public:
    virtual ~TopologyPort() = default;
    /** Asks for all of them before the first is answered. @return the answers, in the same order */
    virtual std::vector<RequestResult> Bind(const std::vector<Binding>& bindings) = 0;
    virtual RequestResult Unbind(const Binding& binding) = 0;
    virtual RequestResult Consume(const std::string& queue) = 0;
    virtual RequestResult StopConsuming(const std::string& queue) = 0;
};

/** A binding or queue with those who use it. */
struct RouteUse
{
    RouteKind kind = RouteKind::topic;
    /** The topic, or the queue's name. */
    std::string name;
    /** For a topic the queue that it is bound to. */
    std::string queue;
    RouteState state = RouteState::intended;
    std::vector<std::string> applications;
};

/** One page of the routes that were searched for. */
struct RoutePage
{
    std::size_t total = 0;
    std::size_t matching = 0;
    std::vector<RouteUse> routes;
};

/** How many bindings there are, by state (RouteState), and how many queues. */
struct RouteCounts
{
    std::array<std::size_t, 3> bindings{};
    std::size_t queues = 0;
};

/**
 * Topology knows which application uses which binding and queue, asks the broker only for what changes, and keeps the
 * journal of it.
 *
 * A configuration is carried out between Begin and End, by one thread at a time; the handler's operations in between
 * are the application's. What the new configuration wants again in the same place is neither unbound nor bound, so that
 * no message for it is lost and an unchanged configuration costs no request. A binding that several applications use
 * goes when its last user goes. What could not be removed stays as an orphan until RemoveOrphans succeeds.
 *
 * The handler binds one topic after the other. The first one that the broker has to be asked for takes the next ones of
 * the configuration along, which are then in force when the handler comes to them.
 *
 * Reading operations may be called from any thread. No lock that they take is held across a request.
 */
class Topology
{
  public:
    /**
     * So many bindings are asked for at once: enough for the way to the broker and back to count for nothing, few
     * enough for a broker that needs 400 ms for each to answer all of them within the deadline of one.
     */
    static constexpr std::size_t MOST_AT_ONCE = 64;

    Topology(TopologyPort& port, Journal& journal, const RmqInfo& info);

    /**
     * Takes over what the journal holds, before anything is connected. Routes of applications that are not known
     * any more, and those that were being removed, become orphans.
     * @return the routes in use, in the order of recording.
     */
    std::vector<RouteRecord> Restore(const std::function<bool(const std::string& application)>& isKnown);

    /** Starts carrying out a configuration: `wanted` is the application's new set of routes. */
    void Begin(const std::string& application, const std::vector<RouteRecord>& wanted);
    /** The configuration failed: from now on nothing is wanted. */
    void Withdraw();
    /** Ends it: removes whatever the application still has and does not want. @return false when orphans remain. */
    bool End();

    /** The handler's operations; the results are those of RmqClient. */
    bool Bind(const Binding& binding);
    bool Unbind(const Binding& binding);
    bool Declare(const std::string& queue);
    bool Cancel(const std::string& queue);

    /** Tries to unbind every orphan. @return whether none is left. */
    bool RemoveOrphans();

    /** The process is about to end: the broker and the journal stay as they are, whatever is asked. */
    void Freeze();
    bool IsFrozen() const;

    std::vector<Binding> Bindings() const;
    std::vector<std::string> Queues() const;
    /** The queue that some application's topic is bound to; the normal client queue before the priority queue. */
    std::optional<std::string> QueueOf(const std::string& topic) const;
    /** Whether the name is one that no application may use: the agent's own queues and the parking queues. */
    bool IsReserved(const std::string& name) const;
    bool IsJournalDegraded() const;

    RouteCounts Counts() const;
    /** The bindings whose topic fits, which is asked under the lock; also those that are to go. */
    std::vector<RouteUse> BindingsWhere(const std::function<bool(const std::string& topic)>& fits) const;
    /**
     * The routes whose name contains the text, by name; at most `limit` from the place `offset` on.
     * @param application only those that it uses, unless empty
     */
    RoutePage Find(
        const std::string& text, std::size_t offset, std::size_t limit, const std::string& application = {}) const;

  private:
    struct Use
    {
        std::vector<std::string> users;
        RouteState state = RouteState::intended;
    };
    struct Routes
    {
        std::set<Binding> bindings;
        std::set<std::string> queues;
        bool operator==(const Routes&) const = default;
    };
    struct Frame
    {
        std::string application;
        Routes wanted;
        /** Those of wanted.bindings that have not been looked at for asking yet, in the configuration's order. */
        std::deque<const Binding*> next;
        std::set<Binding> refused;
        bool withdrawn = false;
        std::unique_lock<std::mutex> turn;
    };

    RouteRecord Record(const Binding& binding, RouteState state) const;
    RouteRecord Record(const std::string& queue, RouteState state) const;
    void Note(const RouteRecord& record, bool erase = false);
    void Note(const std::vector<JournalChange>& changes);
    void RepairJournal();
    bool IsWanted(const Binding& binding) const;
    bool IsWanted(const std::string& queue) const;
    bool IsInForce(const Binding& binding) const;
    void AddUser(const Binding& binding);
    bool DropUser(const Binding& binding);
    void CheckNotFrozen() const;
    std::vector<Binding> Claim(const Binding& binding);
    void Take(const std::vector<Binding>& asked, const std::vector<RequestResult>& answers);
    void Refuse(const Binding& binding, const std::string& why);
    bool Leave(const Binding& binding);
    RequestResult Remove(const Binding& binding);
    Answer RemoveOrWarn(const Binding& binding);
    Routes Unwanted() const;

    TopologyPort& m_port;
    Journal& m_journal;
    const RmqInfo m_info;
    const std::string m_parkingPrefix;
    RepeatedWarnings m_warnings;

    /** Held while one configuration, or the removal of one orphan, is carried out. */
    std::mutex m_turn;
    /** Guards everything below. */
    mutable std::mutex m_mutex;
    std::optional<Frame> m_frame;
    std::map<Binding, Use> m_bindings;
    std::map<std::string, Use> m_queues;
    std::map<std::string, Routes> m_routes;
    bool m_frozen = false;
};

} // namespace VtxQel

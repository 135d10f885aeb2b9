#pragma once

#include "broker/BrokerLink.h"
#include "broker/TopologyRequest.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <set>
#include <string>

namespace VtxQel
{

/**
 * Restoration hands out what has to be made again on a new connection, in its order: exchanges, own queues, bindings,
 * applications' queues. Each step begins when everything of the one before is done; what the broker could not do yet
 * holds up the next step only for exchanges and own queues, and the end for bindings, too. What was given up meanwhile
 * (unbound, cancelled) is left out. Used by the I/O thread alone.
 */
class Restoration
{
  public:
    using Request = std::shared_ptr<TopologyRequest>;

    enum class Step
    {
        exchanges,
        ownQueues,
        bindings,
        applicationQueues,
        done
    };

    /** Starts over with this topology. */
    void Begin(const DesiredTopology& desired);
    /** The connection ended: nothing more is handed out until Begin(). */
    void Abandon();
    /** A queue was made again: its bindings have to be, too. */
    void AddBindings(const DesiredTopology& desired, const std::string& queue);

    /** The next item to be carried out now, if any; it counts as under way until Finished() or Delayed(). */
    Request Next();
    void Finished() { --m_underWay; }
    /** It is to be tried again; Resume() hands it out then. */
    void Delayed(const TopologyRequest& request);
    void Resume(Request request);
    /** Adds an item to what is to be restored. */
    void Add(Request request);

    /** Whether requests of others may be made: exchanges and own queues are there. */
    bool IsBaseReady() const { return m_step > Step::ownQueues; }
    /** Whether everything is made again but for what was refused and applications' queues that are delayed. */
    bool IsDone() const { return m_step == Step::done; }
    /** Whether there is no such queue either. */
    bool IsComplete() const { return IsDone() && m_delayedQueues == 0; }
    /** Whether it is one of the agent's own queues, without which there is nothing to be done. */
    bool IsOwnQueue(const std::string& queue) const { return m_ownQueues.count(queue) > 0; }
    /** Whether the broker owes an answer to something that is being restored. */
    bool IsAwaited() const { return m_underWay > 0; }

    /** Keeps the restoration from making (again) what somebody gave up, or takes that back. */
    void GiveUp(const Binding& binding) { m_givenUpBindings.insert(binding); }
    void GiveUpQueue(const std::string& queue) { m_givenUpQueues.insert(queue); }
    void Want(const Binding& binding) { m_givenUpBindings.erase(binding); }
    void WantQueue(const std::string& queue) { m_givenUpQueues.erase(queue); }
    bool IsGivenUp(const TopologyRequest& request) const;

  private:
    std::deque<Request>& Items(Step step) { return m_items[static_cast<std::size_t>(step)]; }
    void Advance();
    std::size_t& DelayedLike(const TopologyRequest& request);

    /** Few at a time: a request that comes now waits behind those that are under way. */
    static constexpr std::size_t WINDOW = 32;

    Step m_step = Step::exchanges;
    std::deque<Request> m_items[4];
    std::size_t m_underWay = 0;
    /** Applications' queues that are delayed, and everything else that is. */
    std::size_t m_delayedQueues = 0;
    std::size_t m_delayed = 0;
    std::set<std::string> m_ownQueues;
    std::set<Binding> m_givenUpBindings;
    std::set<std::string> m_givenUpQueues;
};

} // namespace VtxQel

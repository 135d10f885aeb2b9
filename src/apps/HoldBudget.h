#pragma once

#include <atomic>
#include <cstddef>

namespace VtxQel
{

/** What one application holds of the budget. Guarded by the application's lock. */
struct HeldAmount
{
    std::size_t messages = 0;
    std::size_t bytes = 0;
};

/**
 * HoldBudget bounds what is held unsettled for all applications together, so that one that does not answer cannot use
 * up what the broker sends ahead or the agent's memory.
 *
 * The share of an application is whatever the others and it leave free: with n that take all they can get, 1/(n+1)
 * stays free for the rest, and a sixteenth of the whole is never too much to hold. Holding more than the share is
 * allowed for a moment, sending more than it is not. Bytes are bounded for all together and never exceeded. Any thread
 * may call; sums are exact, comparisons as of a recent moment.
 */
class HoldBudget
{
  public:
    /** @param messages the broker's prefetch over all queues. @param bytes the memory bound for held bodies. */
    HoldBudget(std::size_t messages, std::size_t bytes) : m_limit{messages, bytes} {}
    HoldBudget(const HoldBudget&) = delete;
    HoldBudget& operator=(const HoldBudget&) = delete;

    /** Takes a message on; `false`, and nothing is taken, when the bytes would exceed the bound for all. */
    bool TryHold(HeldAmount& held, std::size_t bytes);
    /** Whether the bound for all leaves room for a message of this size at all; TryHold takes a larger one alone. */
    bool Fits(std::size_t bytes) const { return bytes <= m_limit.bytes; }
    /** Gives back what TryHold took. */
    void Release(HeldAmount& held, std::size_t bytes);
    /** Whether the application would hold more than its share with one more message of this size. */
    bool WouldExceedShare(const HeldAmount& held, std::size_t bytes) const;

    /** Whether one more message may go to the application; one always may, so that everybody gets on. */
    bool MaySend(const HeldAmount& sent, std::size_t bytes) const;
    void AddSent(HeldAmount& sent, std::size_t bytes);
    void RemoveSent(HeldAmount& sent, std::size_t bytes);

    HeldAmount Held() const { return {m_heldMessages.load(), m_heldBytes.load()}; }

  private:
    const HeldAmount m_limit;
    std::atomic<std::size_t> m_heldMessages{0};
    std::atomic<std::size_t> m_heldBytes{0};
    std::atomic<std::size_t> m_sentMessages{0};
    std::atomic<std::size_t> m_sentBytes{0};
};

} // namespace VtxQel

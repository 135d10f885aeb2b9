#pragma once

#include "broker/BrokerLink.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

namespace VtxQel
{

/**
 * UnsettledTags keeps the delivery tags of one channel that the broker still waits for, in their order, and turns
 * settlements into as few answers as possible: one acknowledgement with `multiple` for everything settled from the
 * oldest on, single answers for what stands behind a hole. Used by the I/O thread alone.
 */
class UnsettledTags
{
  public:
    /** Sends one answer; `multiple` is only ever true for SettleAs::ack. */
    using Send = std::function<void(std::uint64_t tag, SettleAs as, bool multiple)>;

    /** The next delivery came. Tags count from 1 on a channel; one out of order is a protocol error: false. */
    bool Add(std::uint64_t tag);
    /** Notes a settlement for the next flush. A tag that is unknown or settled already is ignored: false. */
    bool Settle(std::uint64_t tag, SettleAs as);
    /** Whether there is something to flush. */
    bool HasNews() const { return !m_news.empty(); }
    /** How many settlements the next flush will send. */
    std::size_t News() const { return m_news.size(); }
    /** Sends what was settled since the last flush. */
    void Flush(const Send& send);
    /** How many deliveries have not been settled. */
    std::size_t Unsettled() const { return m_unsettled; }

  private:
    enum class State : std::uint8_t
    {
        unsettled,
        ack,
        reject,
        requeue,
        sent
    };

    State& At(std::uint64_t tag) { return m_states[static_cast<std::size_t>(tag - m_first)]; }
    void FlushFront(const Send& send);

    /** The state of m_first and its successors. */
    std::deque<State> m_states;
    std::uint64_t m_first = 1;
    std::vector<std::uint64_t> m_news;
    std::size_t m_unsettled = 0;
};

} // namespace VtxQel

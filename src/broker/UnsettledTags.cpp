#include "broker/UnsettledTags.h"

namespace VtxQel
{

bool UnsettledTags::Add(std::uint64_t tag)
{
    if (tag != m_first + m_states.size())
    {
        return false;
    }
    m_states.push_back(State::unsettled);
    ++m_unsettled;
    return true;
}

bool UnsettledTags::Settle(std::uint64_t tag, SettleAs as)
{
    if (tag < m_first || tag >= m_first + m_states.size() || At(tag) != State::unsettled)
    {
        return false;
    }
    At(tag) = as == SettleAs::ack ? State::ack : as == SettleAs::reject ? State::reject : State::requeue;
    m_news.push_back(tag);
    --m_unsettled;
    return true;
}

void UnsettledTags::Flush(const Send& send)
{
    FlushFront(send);
    for (const std::uint64_t tag : m_news)
    {
        if (tag >= m_first && At(tag) != State::sent)
        {
            const State state = At(tag);
            At(tag) = State::sent;
            send(
                tag,
                state == State::ack      ? SettleAs::ack
                : state == State::reject ? SettleAs::reject
                                         : SettleAs::requeue,
                false);
        }
    }
    m_news.clear();
}

void UnsettledTags::FlushFront(const Send& send)
{
    std::uint64_t acked = 0;
    std::size_t count = 0;
    while (!m_states.empty() && m_states.front() != State::unsettled)
    {
        const State state = m_states.front();
        if (state == State::ack)
        {
            acked = m_first;
            ++count;
        }
        else if (state != State::sent)
        {
            // Before the acknowledgement that would sweep it up.
            send(m_first, state == State::reject ? SettleAs::reject : SettleAs::requeue, false);
        }
        m_states.pop_front();
        ++m_first;
    }
    if (count > 0)
    {
        send(acked, SettleAs::ack, count > 1);
    }
}

} // namespace VtxQel

#include "apps/HoldBudget.h"

#include <algorithm>

namespace VtxQel
{

namespace
{

/** Below this part of the limit nobody holds too much, however much the others hold. */
constexpr std::size_t smallestShare = 16;

std::size_t Left(std::size_t limit, std::size_t used)
{
    return used < limit ? limit - used : 0;
}

std::size_t Share(std::size_t limit, std::size_t used)
{
    return std::max(Left(limit, used), limit / smallestShare);
}

} // namespace

bool HoldBudget::TryHold(HeldAmount& held, std::size_t bytes)
{
    const std::size_t before = m_heldBytes.fetch_add(bytes);
    if (before + bytes > m_limit.bytes && before != 0)
    {
        m_heldBytes.fetch_sub(bytes);
        return false;
    }
    m_heldMessages.fetch_add(1);
    ++held.messages;
    held.bytes += bytes;
    return true;
}

void HoldBudget::Release(HeldAmount& held, std::size_t bytes)
{
    m_heldMessages.fetch_sub(1);
    m_heldBytes.fetch_sub(bytes);
    --held.messages;
    held.bytes -= bytes;
}

bool HoldBudget::WouldExceedShare(const HeldAmount& held, std::size_t bytes) const
{
    const HeldAmount all = Held();
    return held.messages + 1 > Share(m_limit.messages, all.messages) ||
           (held.messages != 0 && held.bytes + bytes > Share(m_limit.bytes, all.bytes));
}

bool HoldBudget::MaySend(const HeldAmount& sent, std::size_t bytes) const
{
    if (sent.messages == 0)
    {
        return true;
    }
    return sent.messages + 1 <= Left(m_limit.messages, m_sentMessages.load()) &&
           sent.bytes + bytes <= Left(m_limit.bytes, m_sentBytes.load());
}

void HoldBudget::AddSent(HeldAmount& sent, std::size_t bytes)
{
    m_sentMessages.fetch_add(1);
    m_sentBytes.fetch_add(bytes);
    ++sent.messages;
    sent.bytes += bytes;
}

void HoldBudget::RemoveSent(HeldAmount& sent, std::size_t bytes)
{
    m_sentMessages.fetch_sub(1);
    m_sentBytes.fetch_sub(bytes);
    --sent.messages;
    sent.bytes -= bytes;
}

} // namespace VtxQel

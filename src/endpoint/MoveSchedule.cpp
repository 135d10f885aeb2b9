#include "endpoint/MoveSchedule.h"

#include <algorithm>

namespace VtxQel
{

std::optional<MoveSchedule::Clock::duration> MoveSchedule::OnHint(
    std::chrono::milliseconds within, Clock::time_point now)
{
    if (m_due)
    {
        return std::nullopt;
    }
    m_due = true;
    std::chrono::milliseconds earliest{0};
    if (m_lastMove && now < *m_lastMove + LEAST_BETWEEN_MOVES)
    {
        earliest = std::chrono::ceil<std::chrono::milliseconds>(*m_lastMove + LEAST_BETWEEN_MOVES - now);
    }
    // The moments before the earliest one are left out, not put off: they would all end up on it.
    std::uniform_int_distribution<std::chrono::milliseconds::rep> moment(
        earliest.count(), std::max(within, earliest).count());
    return std::chrono::milliseconds(moment(m_random));
}

void MoveSchedule::OnMove(Clock::time_point now)
{
    m_due = false;
    m_lastMove = now;
}

} // namespace VtxQel

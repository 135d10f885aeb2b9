#include "broker/BackOff.h"

#include <algorithm>

namespace VtxQel
{

BackOff::Milliseconds BackOff::Next()
{
    std::uniform_int_distribution<Milliseconds::rep> pick(SHORTEST.count(), m_limit.count());
    if (++m_waits % m_addresses == 0)
    {
        m_limit = std::min(2 * m_limit, LONGEST);
    }
    return Milliseconds(pick(m_random));
}

void BackOff::Lasted(std::chrono::steady_clock::duration time)
{
    if (time >= HEALTHY)
    {
        m_limit = FIRST;
        m_waits = 0;
    }
}

} // namespace VtxQel

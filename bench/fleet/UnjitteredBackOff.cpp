// A BackOff without the draw: everybody waits for the limit of the agent's own one. Linked before the agent's library,
// it takes the place of the one in there, to show what the draw is good for.

#include "broker/BackOff.h"

#include <algorithm>

namespace VtxQel
{

BackOff::Milliseconds BackOff::Next()
{
    const Milliseconds wait = m_limit;
    if (++m_waits % m_addresses == 0)
    {
        m_limit = std::min(2 * m_limit, LONGEST);
    }
    return wait;
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

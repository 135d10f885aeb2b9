#include "broker/BackOff.h"

#include <algorithm>

namespace VtxQel
{

BackOff::Milliseconds BackOff::Next()
{
    std::uniform_int_distribution<Milliseconds::rep> pick(SHORTEST.count(), m_limit.count());
    m_limit = std::min(2 * m_limit, LONGEST);
    return Milliseconds(pick(m_random));
}

} // namespace VtxQel

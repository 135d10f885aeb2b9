#include "endpoint/BrokerFrontEnd.h"

#include "logging/Log.h"

#include <algorithm>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr std::chrono::seconds LEAST_BETWEEN_MOVES{30};

} // namespace

BrokerFrontEnd::BrokerFrontEnd(std::function<void()> move, Scheduler& scheduler, std::chrono::seconds mostWithin)
    : m_move(std::move(move)), m_scheduler(scheduler), m_mostWithin(mostWithin), m_random(std::random_device{}())
{
}

bool BrokerFrontEnd::Reassign(int code, int value)
{
    if (code != MOVE || value < 0)
    {
        QEL_LOG(vtx::LevelWarning, "a reassign request of code %d and value %d is not understood", code, value);
        return false;
    }
    const std::lock_guard lock(m_mutex);
    if (m_pending)
    {
        return true;
    }
    m_pending = true;
    const std::chrono::milliseconds within = std::min(std::chrono::seconds(value), m_mostWithin);
    std::uniform_int_distribution<std::chrono::milliseconds::rep> moment(0, within.count());
    Clock::duration delay = std::chrono::milliseconds(moment(m_random));
    if (m_lastMove)
    {
        delay = std::max(delay, *m_lastMove + LEAST_BETWEEN_MOVES - Clock::now());
    }
    QEL_LOG(
        vtx::LevelStatus, "asked to move to another front end: moving in %.1f s",
        std::chrono::duration<double>(delay).count());
    m_scheduler.After(delay, [this] { Move(); });
    return true;
}

void BrokerFrontEnd::Move()
{
    {
        const std::lock_guard lock(m_mutex);
        m_pending = false;
        m_lastMove = Clock::now();
    }
    m_move();
}

} // namespace VtxQel

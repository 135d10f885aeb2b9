#include "endpoint/BrokerFrontEnd.h"

#include "logging/Log.h"

#include <algorithm>
#include <random>
#include <utility>

namespace VtxQel
{

namespace
{

/** Hosts that start together must not draw the same moments. */
std::uint64_t Seed()
{
    std::random_device random;
    return std::uint64_t{random()} << 32U ^ random();
}

} // namespace

BrokerFrontEnd::BrokerFrontEnd(std::function<void()> move, Scheduler& scheduler, std::chrono::seconds mostWithin)
    : m_move(std::move(move)), m_scheduler(scheduler), m_mostWithin(mostWithin), m_schedule(Seed())
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
    const auto delay =
        m_schedule.OnHint(std::min(std::chrono::seconds(value), m_mostWithin), MoveSchedule::Clock::now());
    if (delay)
    {
        QEL_LOG(
            vtx::LevelStatus, "asked to move to another front end: moving in %.1f s",
            std::chrono::duration<double>(*delay).count());
        m_scheduler.After(*delay, [this] { Move(); });
    }
    return true;
}

void BrokerFrontEnd::Move()
{
    {
        const std::lock_guard lock(m_mutex);
        m_schedule.OnMove(MoveSchedule::Clock::now());
    }
    m_move();
}

} // namespace VtxQel

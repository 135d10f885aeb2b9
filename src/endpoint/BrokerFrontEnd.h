#pragma once

#include "common/EndpointController.h"
#include "common/Scheduler.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <random>

namespace VtxQel
{

/**
 * BrokerFrontEnd moves the agent from one configured broker URL to the next when the management plane asks for it.
 *
 * The move happens at a random moment within the time given, so that a fleet that is told at once does not arrive at
 * once. Hints that come while a move is pending change nothing, and moves are at least 30 s apart. Any thread may call;
 * the move itself is made on the scheduler's thread.
 */
class BrokerFrontEnd : public FE
{
  public:
    using Clock = Scheduler::Clock;

    /** The only code that is understood: move to another front end. */
    static constexpr int MOVE = 6;

    /**
     * @param move carries out one move. @param scheduler runs it; Stop() it before the front end is destroyed.
     * @param mostWithin a bound on the time that a hint may give, for sites that want to move sooner.
     */
    BrokerFrontEnd(std::function<void()> move, Scheduler& scheduler, std::chrono::seconds mostWithin);

    /** @param value seconds within which to move. @return false for a code or value that is not understood. */
    bool Reassign(int code, int value) override;

  private:
    void Move();

    const std::function<void()> m_move;
    Scheduler& m_scheduler;
    const std::chrono::seconds m_mostWithin;
    std::mutex m_mutex;
    /** Guarded by m_mutex, like the two below. */
    bool m_pending = false;
    std::optional<Clock::time_point> m_lastMove;
    std::mt19937_64 m_random;
};

} // namespace VtxQel

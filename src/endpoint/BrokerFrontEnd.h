#pragma once

#include "common/EndpointController.h"
#include "common/Scheduler.h"
#include "endpoint/MoveSchedule.h"

#include <chrono>
#include <functional>
#include <mutex>

namespace VtxQel
{

/**
 * BrokerFrontEnd moves the agent from one configured broker URL to the next when the management plane asks for it, at
 * the moment that its MoveSchedule chooses.
 *
 * A move is one attempt: whether it succeeds is the business of whoever carries it out, and a hint that led to a failed
 * one is forgotten. Any thread may call; the move itself is made on the scheduler's thread.
 */
class BrokerFrontEnd : public FE
{
  public:
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
    /** Guarded by m_mutex. */
    MoveSchedule m_schedule;
};

} // namespace VtxQel

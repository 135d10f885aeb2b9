#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace VtxQel
{

/**
 * MoveSchedule decides when an agent that is hinted to move does so: at a moment that is uniform over the time given,
 * so that a fleet that is told at once does not arrive at once, and at the earliest 30 s after the move before. Hints
 * that come while a move is due change nothing. The caller keeps the clock and locks.
 */
class MoveSchedule
{
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds LEAST_BETWEEN_MOVES{30};

    explicit MoveSchedule(std::uint64_t seed) : m_random(seed) {}

    /** @return how long to wait before the move; nothing when one is due already. */
    std::optional<Clock::duration> OnHint(std::chrono::milliseconds within, Clock::time_point now);
    /** The move that was due begins. */
    void OnMove(Clock::time_point now);

  private:
    std::mt19937_64 m_random;
    bool m_due = false;
    std::optional<Clock::time_point> m_lastMove;
};

} // namespace VtxQel

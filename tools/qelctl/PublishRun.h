#pragma once

#include "ManagementSession.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

namespace VtxQel
{

/**
 * PublishRun publishes one message many times, keeping a bounded number unconfirmed, at a rate when one is given.
 *
 * Execute() is for the main thread; the confirms come on the session's thread and meet it under m_mutex. The session
 * must be closed before the run is destroyed.
 */
class PublishRun
{
  public:
    /** @param rate messages a second; 0 is as fast as the broker confirms. */
    PublishRun(std::uint64_t count, double rate) : m_count(count), m_rate(rate) {}

    /**
     * Publishes until all are confirmed or one is not.
     * @param showProgress writes a line that replaces itself to the standard error about once a second.
     * @return how many were confirmed; fewer than asked for when Trouble() is not empty.
     */
    std::uint64_t Execute(ManagementSession& session, const OutgoingMessage& message, bool showProgress);

    /** Why the first message that was not confirmed was not; empty when all were. */
    PublishOutcome Trouble() const { return m_trouble; }

  private:
    void OnOutcome(PublishResult result, const std::string& why);
    void ShowProgress(bool last);

    const std::uint64_t m_count;
    const double m_rate;
    std::chrono::steady_clock::time_point m_lastProgress;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex while the run lasts.
    std::uint64_t m_unconfirmed = 0;
    std::uint64_t m_confirmed = 0;
    PublishOutcome m_trouble{PublishResult::confirmed, ""};
};

} // namespace VtxQel

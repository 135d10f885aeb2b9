#pragma once

#include "DeadLetter.h"
#include "DeadLetterSession.h"
#include "ManagementSession.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace VtxQel
{

/** What became of the dead letters that a verb went through. */
struct DeadLetterTally
{
    std::uint64_t seen = 0;
    std::uint64_t selected = 0;
    std::uint64_t done = 0;
    /** Selected, and in the queue still. */
    std::uint64_t failed = 0;
};

/**
 * ReplayRun publishes the selected dead letters again, a bounded number at a time, in their order, and removes each
 * when the broker has confirmed it.
 *
 * Execute() is for the main thread; the confirms come on the session's thread and meet it under m_mutex. The session
 * must be gone before the run is.
 */
class ReplayRun
{
  public:
    ReplayRun(DeadLetterFilter filter, ReplayTo to, std::string clientQueue)
        : m_filter(std::move(filter)), m_to(to), m_clientQueue(std::move(clientQueue))
    {
    }

    /**
     * Goes through the whole queue, or until publishing makes no sense any more.
     * @param showProgress writes a line that replaces itself to the standard error about once a second.
     */
    void Execute(DeadLetterSession& session, bool showProgress);

    DeadLetterTally Tally() const;
    /** The first failures, a line each. */
    std::vector<std::string> Failures() const;

  private:
    void Replay(DeadLetterSession& session, DeadLetterAt letter);
    void OnOutcome(std::uint32_t number, std::size_t bytes, const PublishOutcome& outcome);
    void NoteFailure(std::uint32_t number, const std::string& why);
    bool WaitForRoom(std::size_t bytes);
    void ShowProgress(const DeadLetterSession& session, bool last);

    const DeadLetterFilter m_filter;
    const ReplayTo m_to;
    const std::string m_clientQueue;
    std::chrono::steady_clock::time_point m_lastProgress;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    DeadLetterTally m_tally;
    std::vector<std::string> m_failures;
    std::size_t m_inFlight = 0;
    std::size_t m_inFlightBytes = 0;
    bool m_hopeless = false;
};

} // namespace VtxQel

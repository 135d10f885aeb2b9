#pragma once

#include "Command.h"
#include "DeadLetter.h"
#include "ReplayRun.h"

#include <cstdint>
#include <optional>
#include <string>

namespace VtxQel
{

/**
 * `qelctl dead-letters list|show|replay|purge AGENT`: looks after the messages that nobody took.
 *
 * What is only looked at is taken from the queue and given back, so that it stays in its place.
 */
class DeadLettersCommand : public Command
{
  public:
    CLI::App* Register(CLI::App& root) override;
    void Run(const GlobalOptions& options) override;

  private:
    void RegisterAgent(CLI::App& verb);
    void RegisterFilter(CLI::App& verb);
    void RegisterList(CLI::App& group);
    void RegisterShow(CLI::App& group);
    void RegisterReplay(CLI::App& group);
    void RegisterPurge(CLI::App& group);

    void List(const GlobalOptions& options) const;
    void Show(const GlobalOptions& options) const;
    void Replay(const GlobalOptions& options) const;
    void Purge(const GlobalOptions& options) const;

    std::string Queue() const;
    void DemandSelection(const char* verb) const;
    void Warn(const DeadLetterSession& session) const;
    void Report(const DeadLetterTally& tally, const std::string& done, bool json) const;

    std::string m_agent;
    std::string m_deadLetterQueue;
    std::string m_clientQueue;
    DeadLetterFilter m_filter;
    std::uint32_t m_limit = 1000;
    std::optional<std::uint32_t> m_number;
    bool m_all = false;
    bool m_yes = false;
    ReplayTo m_to = ReplayTo::best;
    /** What the command line asks for. */
    void (DeadLettersCommand::*m_run)(const GlobalOptions& options) const = nullptr;
};

} // namespace VtxQel

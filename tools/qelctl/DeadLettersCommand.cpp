#include "DeadLettersCommand.h"

#include "DeadLetterPrinter.h"
#include "Failure.h"
#include "qel/StopOnSignals.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>
#include <limits>
#include <map>

#include <unistd.h>

namespace VtxQel
{

namespace
{

/** More cannot be held unsettled at a time. */
constexpr std::uint32_t mostListed = 65535;
constexpr std::uint32_t noLimit = std::numeric_limits<std::uint32_t>::max();

std::string Messages(std::uint64_t count)
{
    return std::to_string(count) + (count == 1 ? " message" : " messages");
}

} // namespace

CLI::App* DeadLettersCommand::Register(CLI::App& root)
{
    CLI::App* group = root.add_subcommand("dead-letters", "Look at messages that nobody took, and have another try");
    group->require_subcommand(1);
    RegisterList(*group);
    RegisterShow(*group);
    RegisterReplay(*group);
    RegisterPurge(*group);
    return group;
}

void DeadLettersCommand::RegisterAgent(CLI::App& verb)
{
    verb.add_option("agent", m_agent, "The agent's id")->required()->type_name("AGENT");
    verb.add_option(
            "--dead-letter-queue", m_deadLetterQueue, "The agent's dead-letter queue (default qel.client.AGENT.dead)")
        ->type_name("QUEUE");
}

void DeadLettersCommand::RegisterFilter(CLI::App& verb)
{
    verb.add_option("--application", m_filter.application, "Those of this application alone")->type_name("APP");
    verb.add_option("--reason", m_filter.reason, "Those whose reason contains this text alone")->type_name("TEXT");
}

void DeadLettersCommand::RegisterList(CLI::App& group)
{
    CLI::App* verb = group.add_subcommand("list", "List the dead letters and leave them where they are");
    RegisterAgent(*verb);
    RegisterFilter(*verb);
    verb->add_option("--limit", m_limit, "List at most so many, from the oldest on (default 1000)")
        ->check(CLI::Range(1U, mostListed))
        ->type_name("N");
    verb->callback([this] { m_run = &DeadLettersCommand::List; });
}

void DeadLettersCommand::RegisterShow(CLI::App& group)
{
    CLI::App* verb = group.add_subcommand("show", "Print everything of one dead letter");
    RegisterAgent(*verb);
    CLI::Option* number =
        verb->add_option("number", m_number, "Its place in the queue now, from 1: the number that list prints")
            ->check(CLI::Range(1U, mostListed))
            ->type_name("NUMBER");
    verb->add_option("--message-id", m_filter.messageId, "The message's id; shows each message that has it")
        ->excludes(number)
        ->type_name("ID");
    verb->callback([this] { m_run = &DeadLettersCommand::Show; });
}

void DeadLettersCommand::RegisterReplay(CLI::App& group)
{
    static const std::map<std::string, ReplayTo> targets = {
        {"original", ReplayTo::original}, {"application", ReplayTo::application}};
    CLI::App* verb = group.add_subcommand("replay", "Publish dead letters again");
    RegisterAgent(*verb);
    RegisterFilter(*verb);
    CLI::Option* id = verb->add_option("--message-id", m_filter.messageId, "Those with this message id alone");
    id->type_name("ID");
    verb->add_flag("--all", m_all, "All of them")->excludes(id);
    verb->add_option(
            "--to", m_to,
            "original: where it was published to, for everybody who gets messages from there; application: to the "
            "application that did not take it, through the agent's client queue (default when there is one)")
        ->transform(CLI::CheckedTransformer(targets))
        ->type_name("original|application");
    verb->add_option("--client-queue", m_clientQueue, "The agent's client queue (default qel.client.AGENT)")
        ->type_name("QUEUE");
    verb->callback([this] { m_run = &DeadLettersCommand::Replay; });
}

void DeadLettersCommand::RegisterPurge(CLI::App& group)
{
    CLI::App* verb = group.add_subcommand("purge", "Remove dead letters for good");
    RegisterAgent(*verb);
    RegisterFilter(*verb);
    CLI::Option* id = verb->add_option("--message-id", m_filter.messageId, "Those with this message id alone");
    id->type_name("ID");
    verb->add_flag("--all", m_all, "All of them")->excludes(id);
    verb->add_flag("--yes", m_yes, "Do it; without this they are only counted");
    verb->callback([this] { m_run = &DeadLettersCommand::Purge; });
}

void DeadLettersCommand::Run(const GlobalOptions& options)
{
    (this->*m_run)(options);
}

std::string DeadLettersCommand::Queue() const
{
    return m_deadLetterQueue.empty() ? "qel.client." + m_agent + ".dead" : m_deadLetterQueue;
}

void DeadLettersCommand::DemandSelection(const char* verb) const
{
    if (m_filter.IsEmpty() && !m_all)
    {
        throw UsageError(
            std::string("dead-letters ") + verb +
            ": say which: --application APP, --reason TEXT, --message-id ID, or --all");
    }
    if (!m_filter.IsEmpty() && m_all)
    {
        throw UsageError(std::string("dead-letters ") + verb + ": --all and a selection contradict each other");
    }
}

/** What the operator has to know of what we did not see. */
void DeadLettersCommand::Warn(const DeadLetterSession& session) const
{
    if (session.OtherConsumers() > 0)
    {
        std::cerr << "qelctl: " << session.OtherConsumers() << " other consumer(s) read from queue " << Queue()
                  << " at the same time: what they hold is not seen, and numbers do not last" << std::endl;
    }
    if (!session.Shortfall().empty())
    {
        std::cerr << "qelctl: " << session.Shortfall() << std::endl;
    }
}

void DeadLettersCommand::List(const GlobalOptions& options) const
{
    DeadLetterSession session(options, "dead-letters list", Queue());
    session.Open(m_filter.IsEmpty() ? m_limit : noLimit);
    std::vector<DeadLetterRow> rows;
    while (rows.size() < m_limit)
    {
        const std::optional<DeadLetterAt> letter = session.Next();
        if (!letter)
        {
            break;
        }
        session.Keep();
        if (Selects(m_filter, *letter))
        {
            rows.push_back(DeadLetterRow::Of(*letter));
        }
    }
    // They are back in the queue before anybody pages through the list.
    session.Close();
    if (options.json)
    {
        PrintJson(std::cout, rows);
    }
    else
    {
        if (!rows.empty())
        {
            PrintTable(std::cout, rows);
        }
        std::cout << rows.size() << " listed, " << Messages(session.Count()) << " in queue " << Queue() << std::endl;
    }
    Warn(session);
    if (!session.Shortfall().empty())
    {
        throw Failure("the list is not complete");
    }
}

void DeadLettersCommand::Show(const GlobalOptions& options) const
{
    if (!m_number && !m_filter.messageId)
    {
        throw UsageError("dead-letters show: say which: NUMBER or --message-id ID");
    }
    DeadLetterSession session(options, "dead-letters show", Queue());
    session.Open(m_number.value_or(noLimit));
    std::uint64_t shown = 0;
    while (const std::optional<DeadLetterAt> letter = session.Next())
    {
        session.Keep();
        if (m_number ? letter->number == *m_number : Selects(m_filter, *letter))
        {
            PrintWhole(std::cout, *letter, options.json);
            ++shown;
        }
    }
    session.Close();
    std::cout.flush();
    Warn(session);
    if (shown == 0)
    {
        throw Failure(
            (m_number ? "there is no message " + std::to_string(*m_number)
                      : "there is no message with the id " + *m_filter.messageId) +
            " in queue " + Queue() + ", which has " + Messages(session.Count()));
    }
}

void DeadLettersCommand::Replay(const GlobalOptions& options) const
{
    DemandSelection("replay");
    ReplayRun run(m_filter, m_to, m_clientQueue.empty() ? "qel.client." + m_agent : m_clientQueue);
    DeadLetterSession session(options, "dead-letters replay", Queue());
    // The session starts its thread when it is opened.
    const qel::StopOnSignals signals([&session] { session.Interrupt(); });
    session.Open();
    run.Execute(session, isatty(STDERR_FILENO) == 1);
    session.Close();
    Warn(session);
    for (const std::string& failure : run.Failures())
    {
        std::cerr << "qelctl: " << failure << std::endl;
    }
    const DeadLetterTally tally = run.Tally();
    Report(tally, "replayed", options.json);
    if (tally.failed > 0 || !session.Shortfall().empty())
    {
        throw Failure("not everything was replayed");
    }
}

void DeadLettersCommand::Purge(const GlobalOptions& options) const
{
    DemandSelection("purge");
    DeadLetterSession session(options, "dead-letters purge", Queue());
    session.Open();
    DeadLetterTally tally;
    while (const std::optional<DeadLetterAt> letter = session.Next())
    {
        const bool selected = Selects(m_filter, *letter);
        const bool removed = selected && m_yes && letter->unreadable.empty();
        ++tally.seen;
        tally.selected += selected ? 1 : 0;
        tally.done += removed ? 1 : 0;
        if (removed)
        {
            session.Remove(letter->message.tag);
        }
        else
        {
            session.Keep();
        }
    }
    session.Close();
    Warn(session);
    if (!m_yes)
    {
        throw UsageError(
            Messages(tally.selected) + " of " + std::to_string(tally.seen) + " in queue " + Queue() +
            " would be removed for good: add --yes to do it");
    }
    tally.failed = tally.selected - tally.done;
    Report(tally, "removed", options.json);
    if (tally.failed > 0 || !session.Shortfall().empty())
    {
        throw Failure("not everything was removed");
    }
}

void DeadLettersCommand::Report(const DeadLetterTally& tally, const std::string& done, bool json) const
{
    if (json)
    {
        const nlohmann::ordered_json line = {{"agent", m_agent},   {"queue", Queue()},
                                             {"seen", tally.seen}, {"selected", tally.selected},
                                             {done, tally.done},   {"failed", tally.failed}};
        std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
        return;
    }
    std::cout << tally.done << " of " << Messages(tally.selected) << " " << done << ", " << tally.failed << " failed; "
              << tally.seen << " looked at in queue " << Queue() << std::endl;
}

} // namespace VtxQel

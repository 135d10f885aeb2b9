#include "PingCommand.h"

#include "Failure.h"
#include "common/MessageTypes.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <numeric>
#include <thread>

namespace VtxQel
{

namespace
{

using Clock = std::chrono::steady_clock;

} // namespace

CLI::App* PingCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("ping", "Ask an agent for a sign of life and print the round trip");
    m_agent.Register(*verb);
    verb->add_option("--count", m_count, "How many pings (default 1)")
        ->check(CLI::Range(std::uint32_t{1}, std::uint32_t{1000000}))
        ->type_name("N");
    verb->add_option("--interval", m_intervalSeconds, "Pause between pings (default 1)")
        ->check(CLI::Range(0.0, 3600.0))
        ->type_name("SECONDS");
    return verb;
}

void PingCommand::Run(const GlobalOptions& options)
{
    ManagementSession session(options, "ping");
    session.Open(true);
    std::vector<double> roundTrips;
    for (std::uint32_t sequence = 1; sequence <= m_count; ++sequence)
    {
        if (sequence > 1)
        {
            std::this_thread::sleep_for(std::chrono::duration<double>(m_intervalSeconds));
        }
        const Answer answer = PingOnce(session);
        roundTrips.push_back(answer.milliseconds);
        PrintRound(sequence, answer, options.json);
    }
    if (m_count > 1 && !options.json)
    {
        PrintSummary(roundTrips);
    }
}

PingCommand::Answer PingCommand::PingOnce(ManagementSession& session) const
{
    OutgoingMessage request;
    request.properties.type = PING_REQUEST_TYPE;
    request.properties.replyTo = session.ReplyQueue();
    request.properties.correlationId = RandomId();
    // An agent that comes back later has no use for a ping that nobody waits for any more.
    request.properties.expiration = std::to_string(std::max<std::int64_t>(session.Timeout().count(), 1));
    const std::string correlationId = request.properties.correlationId;

    const auto start = Clock::now();
    m_agent.Send(session, std::move(request));
    const std::optional<Reply> reply = session.WaitForReply(correlationId, start + session.Timeout());
    if (!reply)
    {
        throw Failure(
            "no answer from agent " + m_agent.id + " within " + InSeconds(session.Timeout()) + ": its queue " +
            m_agent.Queue() + " exists, so check that the agent is running and connected to this broker");
    }
    if (reply->properties.type != PING_REPLY_TYPE)
    {
        throw Failure(
            "agent " + m_agent.id + " answered with a message of type \"" + reply->properties.type + "\", not \"" +
            std::string(PING_REPLY_TYPE) + "\": is " + m_agent.Queue() + " the queue of an agent?");
    }
    return {std::chrono::duration<double, std::milli>(reply->arrival - start).count(), PingReport(reply->body)};
}

void PingCommand::PrintRound(std::uint32_t sequence, const Answer& answer, bool json) const
{
    if (json)
    {
        const nlohmann::ordered_json line = {
            {"agent", m_agent.id},
            {"sequence", sequence},
            {"roundTripMs", answer.milliseconds},
            {"report", answer.report.Json()}};
        std::cout << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << std::endl;
        return;
    }
    std::cout << "answer from " << m_agent.id << " in " << std::fixed << std::setprecision(2) << answer.milliseconds
              << " ms" << answer.report.Headline() << std::endl;
    if (sequence == 1)
    {
        std::cout << answer.report.Details() << std::flush;
    }
}

void PingCommand::PrintSummary(const std::vector<double>& roundTrips) const
{
    const auto [least, most] = std::minmax_element(roundTrips.begin(), roundTrips.end());
    const double mean =
        std::accumulate(roundTrips.begin(), roundTrips.end(), 0.0) / static_cast<double>(roundTrips.size());
    std::cout << roundTrips.size() << " of " << m_count << " answered, round trip least " << *least << ", mean " << mean
              << ", most " << *most << " ms" << std::endl;
}

} // namespace VtxQel

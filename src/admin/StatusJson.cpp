#include "admin/StatusJson.h"

#include "admin/ProcessFigures.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cctype>
#include <ctime>

#include <unistd.h>

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;

std::string Dump(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

/** "in_force" as "inForce". */
std::string CamelCase(const std::string& words)
{
    std::string name;
    for (const char letter : words)
    {
        const bool first = !name.empty() && name.back() == '_';
        if (first)
        {
            name.back() = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
        }
        else
        {
            name += letter;
        }
    }
    return name;
}

Json ToJson(const Counts& counts)
{
    Json json = Json::object();
    for (const auto& [name, count] : counts)
    {
        json[CamelCase(name)] = count;
    }
    return json;
}

Json ToJson(const std::optional<WallTime>& time)
{
    return time ? Json(Rfc3339(*time)) : Json();
}

Json ToJson(const LatencySnapshot& latency)
{
    return {
        {"count", latency.Count()},
        {"sumSeconds", Seconds(latency.sum).count()},
        {"p50Seconds", Seconds(latency.Quantile(0.5)).count()},
        {"p99Seconds", Seconds(latency.Quantile(0.99)).count()}};
}

Json ToJson(const ConnectionFigures& connection)
{
    const Json age = connection.connectedSince ? Json(connection.age.count()) : Json();
    return {
        {"state", connection.state},
        {"url", connection.url},
        {"connectedSince", ToJson(connection.connectedSince)},
        {"ageSeconds", age},
        {"blocked", connection.blocked},
        {"readingPaused", connection.readingPaused},
        {"heldBytes", connection.heldBytes},
        {"unrestored", connection.unrestored},
        {"lastError", connection.lastError},
        {"reconnects", ToJson(connection.reconnects)},
        {"moves", ToJson(connection.moves)},
        {"lastMoveError", connection.lastMoveError}};
}

Json ToJson(const LoopProbeFigures& probe)
{
    const Json roundTrip = probe.lastReturnAt ? Json(Seconds(probe.lastRoundTrip).count()) : Json();
    return {
        {"state", probe.state},
        {"intervalSeconds", probe.interval.count()},
        {"deadlineSeconds", probe.deadline.count()},
        {"lastReturnAt", ToJson(probe.lastReturnAt)},
        {"roundTripSeconds", roundTrip},
        {"returned", probe.roundTrips.Count()},
        {"failed", probe.failed},
        {"failuresInARow", probe.failuresInARow},
        {"strangers", probe.strangers},
        {"error", probe.error}};
}

Json ToJson(const LaneFigures& lane)
{
    return {
        {"name", lane.name},
        {"received", lane.received},
        {"waiting", lane.waiting},
        {"inFlight", lane.inFlight},
        {"failures", lane.failures},
        {"settled", ToJson(lane.settled)},
        {"latency", ToJson(lane.latency)}};
}

Json ToJson(const ConfigurationFigures& configuration)
{
    Json failure;
    if (const auto& last = configuration.lastFailure)
    {
        failure = {{"hash", last->hash}, {"error", last->error}, {"at", Rfc3339(last->at)}};
    }
    const Json duration = configuration.duration ? Json(configuration.duration->count()) : Json();
    return {{"state", configuration.state},   {"hash", configuration.hash},     {"topics", configuration.topics},
            {"queues", configuration.queues}, {"at", ToJson(configuration.at)}, {"durationSeconds", duration},
            {"error", configuration.error},   {"lastFailure", failure}};
}

Json ToJson(const ApplicationFigures& application)
{
    return {
        {"name", application.name},
        {"flow", application.flow},
        {"instances", application.instances},
        {"window", application.window},
        {"inFlight", application.inFlight},
        {"pending", application.pending},
        {"waitingForRetry", application.waitingForRetry},
        {"heldBytes", application.heldBytes},
        {"tries", application.tries},
        {"verdicts", ToJson(application.verdicts)},
        {"tooManyTries", application.tooManyTries},
        {"parked", application.parked},
        {"overdue", application.overdue},
        {"configuration", ToJson(application.configuration)}};
}

Json ToJson(const ConfigurationEvent& event)
{
    return {
        {"application", event.application},
        {"at", Rfc3339(event.at)},
        {"succeeded", event.succeeded},
        {"hash", event.hash},
        {"topics", event.topics},
        {"queues", event.queues},
        {"durationSeconds", event.duration.count()},
        {"error", event.error}};
}

Json ToJson(const CertificateFigures& certificate)
{
    return {{"role", certificate.role}, {"notAfter", Rfc3339(certificate.notAfter)}};
}

Json ToJson(const ProcessFigures& process)
{
    return {
        {"residentBytes", process.residentBytes},
        {"openFiles", process.openFiles},
        {"maxFiles", process.maxFiles},
        {"cpuSeconds", process.cpuSeconds},
        {"threads", process.threads}};
}

Json ToJson(const RouteRow& row)
{
    return {
        {"kind", row.kind},
        {"name", row.name},
        {"queue", row.queue},
        {"state", CamelCase(row.state)},
        {"applications", row.applications}};
}

Json ToJson(const ExplainedBinding& binding)
{
    return {{"topic", binding.topic}, {"state", CamelCase(binding.state)}, {"applications", binding.applications}};
}

Json ToJson(const ExplainedReceiver& receiver)
{
    return {
        {"application", receiver.application},
        {"flow", receiver.flow},
        {"instances", receiver.instances},
        {"why", receiver.why}};
}

Json ToJson(const ExplainedCopy& copy);

template <class T>
Json ListOf(const std::vector<T>& items)
{
    Json list = Json::array();
    for (const T& item : items)
    {
        list.push_back(ToJson(item));
    }
    return list;
}

Json ToJson(const ExplainedCopy& copy)
{
    return {
        {"queue", copy.queue},
        {"bindings", ListOf(copy.bindings)},
        {"named", copy.named},
        {"route", {{"key", copy.routeKey}, {"kind", copy.routeKind}}},
        {"goesTo", CamelCase(copy.goesTo)},
        {"receivers", ListOf(copy.receivers)},
        {"why", copy.why}};
}

Json ToJson(const ConfigurationTotals& totals)
{
    return {{"applied", totals.applied}, {"failed", totals.failed}, {"recent", ListOf(totals.recent)}};
}

} // namespace

std::string Rfc3339(WallTime time)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(time - seconds).count();
    const std::time_t clock = WallTime::clock::to_time_t(seconds);
    std::tm utc{};
    ::gmtime_r(&clock, &utc);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    const std::string digits = std::to_string(1000 + milliseconds);
    return std::string(text.data()) + "." + digits.substr(1) + "Z";
}

std::string StatusJson(const AgentStatus& status)
{
    const Json agent = {
        {"id", status.id},
        {"version", status.version},
        {"startedAt", Rfc3339(status.startedAt)},
        {"uptimeSeconds", status.uptime.count()},
        {"processId", ::getpid()},
        {"logLevel", status.logLevel}};
    const Json routes = {
        {"bindings", ToJson(status.routes.bindings)},
        {"queues", status.routes.queues},
        {"journalDegraded", status.routes.journalDegraded}};
    const Json pings = {
        {"answered", status.pings.answered},
        {"failed", status.pings.failed},
        {"latency", ToJson(status.pings.latency)}};
    return Dump(
        {{"agent", agent},
         {"ready", status.notReady.empty()},
         {"reasons", status.notReady},
         {"connection", ToJson(status.connection)},
         {"loopProbe", ToJson(status.loopProbe)},
         {"lanes", ListOf(status.lanes)},
         {"applications", ListOf(status.applications)},
         {"configurations", ToJson(status.configurations)},
         {"routes", routes},
         {"queues",
          {{"client", status.queues.client},
           {"priority", status.queues.priority},
           {"deadLetter", status.queues.deadLetter}}},
         {"pings", pings},
         {"deadLetters", ToJson(status.deadLetters)},
         {"refusedControlMessages", status.refusedControlMessages},
         {"certificates", ListOf(status.certificates)},
         {"process", ToJson(ProcessFigures::Read())}});
}

std::string RoutesJson(const RouteQuery& query, const RouteRows& routes)
{
    return Dump(
        {{"total", routes.total},
         {"matching", routes.matching},
         {"offset", query.offset},
         {"limit", query.limit},
         {"routes", ListOf(routes.rows)}});
}

std::string ExplanationJson(const ExplainQuery& query, const RouteExplanation& explanation)
{
    return Dump(
        {{"exchange", explanation.exchange},
         {"routingKey", query.routingKey},
         {"type", query.type},
         {"appId", query.appId},
         {"copies", ListOf(explanation.copies)},
         {"why", explanation.why}});
}

std::string ReadinessJson(const std::vector<std::string>& reasons)
{
    return Dump({{"ready", reasons.empty()}, {"reasons", reasons}});
}

std::string ErrorJson(const std::string& text)
{
    return Dump({{"error", text}});
}

} // namespace VtxQel

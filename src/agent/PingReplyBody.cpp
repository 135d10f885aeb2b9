#include "agent/PingReplyBody.h"

#include "admin/StatusJson.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <string_view>

namespace VtxQel
{

namespace
{

using Json = nlohmann::ordered_json;

/** Room for the count of those left out. */
constexpr std::size_t COUNT_DIGITS = 20;

/** What the management plane should see first comes first. */
std::size_t Rank(const std::string& state)
{
    constexpr std::array<std::string_view, 3> FIRST{"failed", "applying", "missing"};
    return static_cast<std::size_t>(std::find(FIRST.begin(), FIRST.end(), state) - FIRST.begin());
}

std::string Dump(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json ToJson(const std::string& application, const ConfigurationFigures& configuration)
{
    Json json = {{"name", application}, {"state", configuration.state}, {"hash", configuration.hash}};
    if (!configuration.error.empty())
    {
        json["error"] = configuration.error;
    }
    if (const auto& failure = configuration.lastFailure)
    {
        json["lastFailure"] = {{"hash", failure->hash}, {"error", failure->error}, {"at", Rfc3339(failure->at)}};
    }
    return json;
}

} // namespace

std::string PingReplyBody(PingReport report)
{
    std::stable_sort(
        report.configurations.begin(), report.configurations.end(),
        [](const auto& left, const auto& right) { return Rank(left.second.state) < Rank(right.second.state); });
    Json body = {
        {"agent", report.id},
        {"version", report.version},
        {"uptimeSeconds", report.uptime.count()},
        {"ready", report.notReady.empty()},
        {"reasons", report.notReady},
        {"applications", Json::array()},
        {"omitted", 0}};
    std::size_t size = Dump(body).size() + COUNT_DIGITS;
    for (const auto& [application, configuration] : report.configurations)
    {
        Json entry = ToJson(application, configuration);
        size += Dump(entry).size() + 1;
        if (size > LARGEST_PING_REPLY)
        {
            break;
        }
        body["applications"].push_back(std::move(entry));
    }
    body["omitted"] = report.configurations.size() - body["applications"].size();
    return Dump(body);
}

} // namespace VtxQel

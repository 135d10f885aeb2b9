#include "PingReport.h"

#include "common/Printable.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace VtxQel
{

namespace
{

using Tree = nlohmann::ordered_json;

std::string Text(const Tree& object, const char* key)
{
    const auto item = object.is_object() ? object.find(key) : object.end();
    return item != object.end() && item->is_string() ? Printable(item->get<std::string>()) : std::string();
}

/** The list of that name; empty when there is none. */
Tree List(const Tree& object, const char* key)
{
    const auto item = object.is_object() ? object.find(key) : object.end();
    return item != object.end() && item->is_array() ? *item : Tree::array();
}

std::string Uptime(double seconds)
{
    const auto minutes = static_cast<std::uint64_t>(std::max(seconds, 0.0)) / 60;
    const std::uint64_t hours = minutes / 60;
    return hours >= 48     ? std::to_string(hours / 24) + " days"
           : minutes >= 90 ? std::to_string(hours) + " h " + std::to_string(minutes % 60) + " min"
           : minutes >= 2  ? std::to_string(minutes) + " min"
                           : std::to_string(static_cast<std::uint64_t>(std::max(seconds, 0.0))) + " s";
}

std::string Padded(const std::string& text, std::size_t width)
{
    return text + std::string(width > text.size() ? width - text.size() : 0, ' ');
}

std::string LineOf(const Tree& application, std::size_t width)
{
    std::string line = "  " + Padded(Text(application, "name"), width) + "  " + Padded(Text(application, "state"), 8) +
                       "  " + Text(application, "hash");
    const std::string error = Text(application, "error");
    const Tree failure = application.is_object() ? application.value("lastFailure", Tree()) : Tree();
    if (!error.empty())
    {
        line += "  " + error;
    }
    else if (failure.is_object())
    {
        line += "  last failure " + Text(failure, "at") + ": " + Text(failure, "error");
    }
    return line + "\n";
}

} // namespace

PingReport::PingReport(const std::string& body) : m_report(Tree::parse(body, nullptr, false))
{
    if (!m_report.is_object())
    {
        m_report = nullptr;
    }
}

std::string PingReport::Headline() const
{
    std::string line;
    if (const std::string version = Text(m_report, "version"); !version.empty())
    {
        line += ": version " + version;
    }
    if (m_report.is_object() && m_report.contains("uptimeSeconds") && m_report["uptimeSeconds"].is_number())
    {
        line += (line.empty() ? ": up " : ", up ") + Uptime(m_report["uptimeSeconds"].get<double>());
    }
    if (m_report.is_object() && m_report.contains("ready") && m_report["ready"].is_boolean())
    {
        line += std::string(line.empty() ? ": " : ", ") + (m_report["ready"].get<bool>() ? "ready" : "not ready");
    }
    return line;
}

std::string PingReport::Details() const
{
    std::string lines;
    for (const Tree& reason : List(m_report, "reasons"))
    {
        lines += reason.is_string() ? "  not ready: " + Printable(reason.get<std::string>()) + "\n" : "";
    }
    const Tree applications = List(m_report, "applications");
    std::size_t width = 0;
    for (const Tree& application : applications)
    {
        width = std::max(width, Text(application, "name").size());
    }
    for (const Tree& application : applications)
    {
        lines += LineOf(application, width);
    }
    const Tree omitted = m_report.is_object() ? m_report.value("omitted", Tree()) : Tree();
    if (omitted.is_number_unsigned() && omitted.get<std::uint64_t>() != 0)
    {
        lines += "  and " + std::to_string(omitted.get<std::uint64_t>()) + " more applications\n";
    }
    return lines;
}

} // namespace VtxQel

#include "agent/LogOutput.h"

#include "common/Printable.h"

#include <nlohmann/json.hpp>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <string>

namespace VtxQel
{

namespace
{

spdlog::level::level_enum ColourOf(int level)
{
    switch (level)
    {
    case vtx::LevelFatal:
        return spdlog::level::critical;
    case vtx::LevelError:
        return spdlog::level::err;
    case vtx::LevelWarning:
        return spdlog::level::warn;
    case vtx::LevelStatus:
        return spdlog::level::info;
    default:
        return spdlog::level::debug;
    }
}

std::string AsText(const vtx::LogLine& line)
{
    const std::string tag = line.tag.empty() ? std::string() : " " + line.tag;
    const std::string text = line.text.ends_with('\n') ? line.text.substr(0, line.text.size() - 1) : line.text;
    return std::string(LogLevelName(line.level)) + " " + line.subcomponent + tag + ": " + Printable(text);
}

std::string AsJson(const vtx::LogLine& line)
{
    nlohmann::ordered_json fields{{"level", LogLevelName(line.level)}, {"subcomponent", line.subcomponent}};
    if (!line.tag.empty())
    {
        fields["tag"] = line.tag;
    }
    fields["message"] = line.text.ends_with('\n') ? line.text.substr(0, line.text.size() - 1) : line.text;
    const std::string object = fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return object.substr(1);
}

} // namespace

void StartLogOutput(const std::string& format)
{
    const bool json = format == "json";
    auto sink = std::make_shared<spdlog::sinks::ansicolor_stderr_sink_mt>();
    // Owned by nobody, on purpose: exit() must not take it from a thread that is writing.
    auto* logger = new spdlog::logger("qel", std::move(sink));
    logger->set_level(spdlog::level::trace);
    logger->set_pattern(json ? R"({"time":"%Y-%m-%dT%H:%M:%S.%e%z",%v)" : "%Y-%m-%dT%H:%M:%S.%e%z %^%v%$");
    vtx::SetLogSink([logger, json](const vtx::LogLine& line)
                    { logger->log(ColourOf(line.level), "{}", json ? AsJson(line) : AsText(line)); });
}

const char* LogLevelName(int level)
{
    switch (level)
    {
    case vtx::LevelFatal:
        return "fatal";
    case vtx::LevelError:
        return "error";
    case vtx::LevelStatus:
        return "status";
    case vtx::LevelWarning:
        return "warning";
    case vtx::LevelNotice:
        return "notice";
    case vtx::LevelDetail:
        return "detail";
    default:
        return "debug";
    }
}

} // namespace VtxQel

#include "agent/LogOutput.h"

#include "common/Printable.h"
#include "logging/Log.h"

#include <google/protobuf/stubs/logging.h>
#include <nlohmann/json.hpp>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <string>
#include <string_view>

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

/** Long enough for what we say and the names in it; what outsiders wrote must not fill the disk. */
constexpr std::size_t LONGEST_TEXT = 4096;

std::string Shown(const vtx::LogLine& line)
{
    std::string_view text = line.text;
    text.remove_suffix(text.ends_with('\n') ? 1 : 0);
    if (text.size() <= LONGEST_TEXT)
    {
        return Printable(text);
    }
    return Printable(text.substr(0, LONGEST_TEXT)) + "... (" + std::to_string(text.size()) + " bytes)";
}

std::string AsText(const vtx::LogLine& line)
{
    const std::string tag = line.tag.empty() ? std::string() : " " + line.tag;
    return std::string(LogLevelName(line.level)) + " " + line.subcomponent + tag + ": " + Shown(line);
}

std::string AsJson(const vtx::LogLine& line)
{
    nlohmann::ordered_json fields{{"level", LogLevelName(line.level)}, {"subcomponent", line.subcomponent}};
    if (!line.tag.empty())
    {
        fields["tag"] = line.tag;
    }
    fields["message"] = Shown(line);
    const std::string object = fields.dump();
    return object.substr(1);
}

/** The library would write lines of its own, and what it says of a bad body names every field that is missing. */
void WriteLibraryLine(google::protobuf::LogLevel level, const char* /*file*/, int /*line*/, const std::string& text)
{
    if (level == google::protobuf::LOGLEVEL_FATAL)
    {
        QEL_LOG(vtx::LevelFatal, "protobuf: %s", text.c_str());
    }
    else
    {
        QEL_LOG(vtx::LevelDetail, "protobuf: %s", text.c_str());
    }
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
    google::protobuf::SetLogHandler(WriteLibraryLine);
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

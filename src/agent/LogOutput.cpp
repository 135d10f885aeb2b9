#include "agent/LogOutput.h"

#include "common/Printable.h"
#include "logging/Log.h"
#include "logging/LogScope.h"
#include "logging/RepeatedLines.h"

#include <google/protobuf/stubs/logging.h>
#include <nlohmann/json.hpp>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <systemd/sd-daemon.h>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

/** The library's word for the level, which decides about colour and priority. */
spdlog::level::level_enum LibraryLevel(int level)
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
    case vtx::LevelNotice:
        return spdlog::level::debug;
    default:
        return spdlog::level::trace;
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

constexpr std::string_view PLAIN_MARKS = "._-:/@+#*";

/** Quoted when somebody could take it for more than one value. */
std::string Quoted(const std::string& value)
{
    const bool isPlain = !value.empty() && std::all_of(
                                               value.begin(), value.end(),
                                               [](char letter)
                                               {
                                                   return std::isalnum(static_cast<unsigned char>(letter)) != 0 ||
                                                          PLAIN_MARKS.find(letter) != std::string_view::npos;
                                               });
    return isPlain ? value : nlohmann::json(Printable(value)).dump();
}

/** In front of the text, where nothing that others wrote can be taken for them. */
std::string AsText(const LogFields& fields)
{
    if (fields.deliveryTag == 0)
    {
        return {};
    }
    std::string text = " [";
    if (!fields.application.empty())
    {
        text += "application=" + Quoted(fields.application) + " ";
    }
    if (!fields.messageId.empty())
    {
        text += "message-id=" + Quoted(fields.messageId) + " ";
    }
    return text + "delivery-tag=" + std::to_string(fields.deliveryTag) + "]";
}

std::string AsText(const vtx::LogLine& line, const LogFields& fields)
{
    const std::string tag = line.tag.empty() ? std::string() : " " + line.tag;
    return std::string(LogLevelName(line.level)) + " " + line.subcomponent + tag + AsText(fields) + ": " + Shown(line);
}

/** Without the brace that opens the object: the time comes first. */
std::string AsJson(const vtx::LogLine& line, const LogFields& fields)
{
    nlohmann::ordered_json object{{"level", LogLevelName(line.level)}, {"subcomponent", line.subcomponent}};
    if (!line.tag.empty())
    {
        object["tag"] = line.tag;
    }
    if (!fields.application.empty())
    {
        object["application"] = Printable(fields.application);
    }
    if (!fields.messageId.empty())
    {
        object["messageId"] = Printable(fields.messageId);
    }
    if (fields.deliveryTag != 0)
    {
        object["deliveryTag"] = fields.deliveryTag;
    }
    object["message"] = Shown(line);
    return object.dump().substr(1);
}

/** Whether standard error leads to the journal: the service manager names the stream's device and inode. */
bool IsJournal()
{
    const char* stream = std::getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe): nobody sets variables
    struct stat error = {};
    return stream != nullptr && ::fstat(STDERR_FILENO, &error) == 0 &&
           std::to_string(error.st_dev) + ":" + std::to_string(error.st_ino) == stream;
}

/** The pattern flag for a line's priority as the journal reads it. */
class JournalPriority : public spdlog::custom_flag_formatter
{
  public:
    void format(const spdlog::details::log_msg& line, const std::tm& /*time*/, spdlog::memory_buf_t& text) override
    {
        static constexpr std::array<std::string_view, 6> PRIORITIES{SD_DEBUG,   SD_INFO, SD_NOTICE,
                                                                    SD_WARNING, SD_ERR,  SD_CRIT};
        const std::string_view priority = PRIORITIES.at(static_cast<std::size_t>(line.level));
        text.append(priority.data(), priority.data() + priority.size());
    }

    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<JournalPriority>(); }
};

/** How a line looks, and where it goes. */
class Output
{
  public:
    explicit Output(const std::string& format)
        : m_isJson(format == "json"), m_logger("qel", std::make_shared<spdlog::sinks::ansicolor_stderr_sink_mt>())
    {
        const bool isJournal = format == "journal" || IsJournal();
        const std::string time = "%Y-%m-%dT%H:%M:%S.%e%z";
        std::string pattern = isJournal ? "%*" : "";
        if (m_isJson)
        {
            pattern += R"({"time":")" + time + R"(",%v)";
        }
        else
        {
            pattern += isJournal ? "%v" : time + " %^%v%$";
        }
        auto formatter = std::make_unique<spdlog::pattern_formatter>();
        formatter->add_flag<JournalPriority>('*').set_pattern(pattern);
        m_logger.set_formatter(std::move(formatter));
        m_logger.set_level(spdlog::level::trace);
    }

    void Take(const vtx::LogLine& line)
    {
        std::vector<vtx::LogLine> counts;
        const bool isNew = m_repeated.Admit(line, counts);
        for (const vtx::LogLine& count : counts)
        {
            Write(count, {});
        }
        if (isNew)
        {
            Write(line, LogScope::Fields());
        }
    }

  private:
    void Write(const vtx::LogLine& line, const LogFields& fields)
    {
        m_logger.log(LibraryLevel(line.level), "{}", m_isJson ? AsJson(line, fields) : AsText(line, fields));
    }

    const bool m_isJson;
    spdlog::logger m_logger;
    RepeatedLines m_repeated;
};

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
    // The logger's, which exit() does not destroy: nothing is taken from a thread that is writing.
    const auto output = std::make_shared<Output>(format);
    vtx::SetLogSink([output](const vtx::LogLine& line) { output->Take(line); });
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

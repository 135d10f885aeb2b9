#include "logging/Logger.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

namespace vtx
{
namespace
{

// The sink is replaced as a whole, so that whoever writes a line keeps the sink it began with alive.
class SinkHolder
{
  public:
    std::shared_ptr<const LogSink> Get()
    {
        const std::lock_guard lock(m_mutex);
        return m_sink;
    }

    std::shared_ptr<const LogSink> Exchange(std::shared_ptr<const LogSink> sink)
    {
        const std::lock_guard lock(m_mutex);
        m_sink.swap(sink);
        return sink;
    }

  private:
    std::mutex m_mutex;
    std::shared_ptr<const LogSink> m_sink = std::make_shared<const LogSink>();
};

// Never destroyed: threads may log while the process exits.
SinkHolder& CurrentSink()
{
    static SinkHolder& holder = *new SinkHolder;
    return holder;
}

} // namespace

LogSink SetLogSink(LogSink sink)
{
    return *CurrentSink().Exchange(std::make_shared<const LogSink>(std::move(sink)));
}

constinit LogLevel Logger::logLevel{LevelWarning};

Logger::Logger(LibraryLogLevel level) : m_exceptionsBefore(std::uncaught_exceptions())
{
    m_line.level = level;
}

Logger::~Logger()
{
    if (std::uncaught_exceptions() > m_exceptionsBefore)
    {
        return;
    }
    try
    {
        const std::shared_ptr<const LogSink> sink = CurrentSink().Get();
        if (*sink)
        {
            (*sink)(m_line);
        }
    }
    catch (...) // NOLINT(bugprone-empty-catch): there is nobody to tell, least of all through a log line
    {
    }
}

Logger& Logger::subcomp(const char* name)
{
    m_line.subcomponent = name;
    return *this;
}

Logger& Logger::tag(const char* tag)
{
    m_line.tag = tag;
    return *this;
}

Logger& Logger::put(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    const std::unique_ptr<char, decltype(&std::free)> owner(length < 0 ? nullptr : text, &std::free);
    // A line whose arguments cannot be formatted still says where it comes from.
    if (owner)
    {
        m_line.text.append(owner.get(), static_cast<std::size_t>(length));
    }
    else
    {
        m_line.text.append(format);
    }
    return *this;
}

} // namespace vtx

#include "common/MinuteLog.h"

#include <utility>

namespace VtxQel
{

namespace
{

constexpr std::chrono::seconds MINUTE{60};

} // namespace

MinuteLog::MinuteLog(After after, Write write) : m_after(std::move(after)), m_write(std::move(write)) {}

void MinuteLog::Note(const std::string& text)
{
    {
        const std::lock_guard lock(m_mutex);
        if (std::exchange(m_written, true))
        {
            ++m_kept;
            m_last = text;
            return;
        }
    }
    m_write(text, 1);
    m_after(MINUTE, [this] { OnMinute(); });
}

void MinuteLog::OnMinute()
{
    std::string last;
    std::uint64_t count = 0;
    {
        const std::lock_guard lock(m_mutex);
        last = std::exchange(m_last, {});
        count = std::exchange(m_kept, 0);
        m_written = count > 0;
    }
    if (count > 0)
    {
        m_write(last, count);
        m_after(MINUTE, [this] { OnMinute(); });
    }
}

} // namespace VtxQel

#include "logging/RepeatedWarnings.h"

#include "logging/Log.h"

#include <algorithm>
#include <utility>

namespace VtxQel
{

RepeatedWarnings::RepeatedWarnings(std::function<Clock::time_point()> now) : m_now(std::move(now)) {}

void RepeatedWarnings::Write(const std::string& all)
{
    const std::string text = all.substr(0, LONGEST_TEXT);
    std::uint64_t leftOut = 0;
    {
        const std::lock_guard lock(m_mutex);
        const Clock::time_point now = m_now();
        const auto found = m_written.find(text);
        if (found != m_written.end() && now - found->second.at < PAUSE)
        {
            ++found->second.leftOut;
            return;
        }
        if (found != m_written.end())
        {
            leftOut = found->second.leftOut;
            m_written.erase(found);
        }
        Forget(now);
        m_written[text] = Written{now};
    }
    if (leftOut == 0)
    {
        QEL_LOG(vtx::LevelWarning, "%s", text.c_str());
    }
    else
    {
        QEL_LOG(
            vtx::LevelWarning, "%s (%llu more times since the last such line)", text.c_str(),
            static_cast<unsigned long long>(leftOut));
    }
}

void RepeatedWarnings::Forget(Clock::time_point now)
{
    std::erase_if(
        m_written, [now](const auto& entry) { return entry.second.leftOut == 0 && now - entry.second.at >= PAUSE; });
    if (m_written.size() >= MOST_TEXTS)
    {
        m_written.erase(std::min_element(
            m_written.begin(), m_written.end(),
            [](const auto& left, const auto& right) { return left.second.at < right.second.at; }));
    }
}

} // namespace VtxQel

#include "logging/RepeatedLines.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace VtxQel
{

namespace
{

bool IsTrouble(int level)
{
    return level == vtx::LevelFatal || level == vtx::LevelError || level == vtx::LevelWarning;
}

} // namespace

RepeatedLines::RepeatedLines(std::function<Clock::time_point()> now) : m_now(std::move(now)) {}

bool RepeatedLines::Admit(const vtx::LogLine& line, std::vector<vtx::LogLine>& due)
{
    const bool isTrouble = IsTrouble(line.level);
    if (!isTrouble && !m_owing)
    {
        return true;
    }
    const std::lock_guard lock(m_mutex);
    const Clock::time_point now = m_now();
    Forget(now, due);
    if (!isTrouble)
    {
        return true;
    }
    const Key key(line.level, line.subcomponent, line.tag, line.text.substr(0, MOST_TEXT));
    Seen& seen = m_lines.try_emplace(key, Seen{now, 0}).first->second;
    if (++seen.count <= MOST_ALIKE)
    {
        return true;
    }
    m_owing = true;
    return false;
}

void RepeatedLines::Forget(Clock::time_point now, std::vector<vtx::LogLine>& due)
{
    for (auto entry = m_lines.begin(); entry != m_lines.end();)
    {
        entry = now - entry->second.since >= PAUSE ? Forget(entry, due) : std::next(entry);
    }
    if (m_lines.size() >= MOST_LINES)
    {
        Forget(
            std::min_element(
                m_lines.begin(), m_lines.end(),
                [](const auto& left, const auto& right) { return left.second.since < right.second.since; }),
            due);
    }
    m_owing =
        std::any_of(m_lines.begin(), m_lines.end(), [](const auto& entry) { return entry.second.count > MOST_ALIKE; });
}

RepeatedLines::Lines::iterator RepeatedLines::Forget(Lines::iterator entry, std::vector<vtx::LogLine>& due)
{
    const auto& [level, subcomponent, tag, text] = entry->first;
    if (entry->second.count > MOST_ALIKE)
    {
        const std::string_view shown = std::string_view(text).substr(0, text.size() - (text.ends_with('\n') ? 1 : 0));
        due.push_back(
            {level, subcomponent, tag,
             std::string(shown) + " (" + std::to_string(entry->second.count - MOST_ALIKE) +
                 " more times since the last such line)"});
    }
    return m_lines.erase(entry);
}

} // namespace VtxQel

#include "apps/Complaints.h"

#include "logging/Log.h"

#include <utility>

namespace VtxQel
{

Complaints::Complaints(std::string application, std::function<Clock::time_point()> now)
    : m_application(std::move(application)), m_now(std::move(now))
{
}

void Complaints::Write(const std::string& text)
{
    std::size_t unsaid = 0;
    {
        const std::lock_guard lock(m_mutex);
        const auto now = m_now();
        if (now < m_quietUntil)
        {
            ++m_unsaid;
            return;
        }
        m_quietUntil = now + QUIET_TIME;
        unsaid = std::exchange(m_unsaid, 0);
    }
    QEL_LOG(
        vtx::LevelWarning, "application %s: %s (%zu more since the last such line)", m_application.c_str(),
        text.c_str(), unsaid);
}

} // namespace VtxQel

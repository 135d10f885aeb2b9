#include "broker/ControlUsers.h"

#include "common/MessageTypes.h"
#include "common/Printable.h"
#include "logging/Log.h"

#include <utility>

namespace VtxQel
{

namespace
{

void WriteRefusals(const std::string& last, std::uint64_t count)
{
    if (count == 1)
    {
        QEL_LOG(vtx::LevelWarning, "a control message was refused and dead-lettered: %s", last.c_str());
        return;
    }
    QEL_LOG(
        vtx::LevelWarning, "%llu control messages were refused and dead-lettered in the last minute; the last one: %s",
        static_cast<unsigned long long>(count), last.c_str());
}

} // namespace

ControlUsers::ControlUsers(const std::vector<std::string>& users, MinuteLog::After after)
    : m_users(users.begin(), users.end()), m_log(std::move(after), WriteRefusals)
{
}

std::string ControlUsers::Refusal(const Delivery& message)
{
    if (m_users.empty() || !IsControlType(message.GetProperties()->type))
    {
        return {};
    }
    std::string reason = ReasonAgainst(message);
    if (!reason.empty())
    {
        ++m_refused;
        m_log.Note(reason + ". " + message.ToString());
    }
    return reason;
}

std::string ControlUsers::ReasonAgainst(const Delivery& message) const
{
    if (!message.GetParkedFor().empty())
    {
        return "control messages are not taken from a parking queue";
    }
    const std::string& user = message.GetProperties()->userId;
    if (user.empty())
    {
        return "the control message does not say who sent it: user-id must be a user that broker.control_users lists";
    }
    return m_users.contains(user)
               ? ""
               : "the broker user " + Printable(user) + " is not one that broker.control_users lists";
}

} // namespace VtxQel

#pragma once

#include "common/Delivery.h"
#include "common/MinuteLog.h"

#include <atomic>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * ControlUsers decides whose control messages (pings, reassign hints, configurations) are obeyed: those whose user-id
 * is a listed broker user; everybody's when none is listed.
 *
 * The broker lets nobody publish with somebody else's user-id, so a name that arrives is true. A parked copy is the
 * exception, because its user-id travels in a header that anybody can write; control messages are never parked, so one
 * that comes from a parking queue is refused. Refusals are counted, and logged once a minute. Any thread.
 */
class ControlUsers
{
  public:
    ControlUsers(const std::vector<std::string>& users, MinuteLog::After after);

    /** Why the message is refused, for its dead letter; empty when it may pass, as all that is not for control does. */
    std::string Refusal(const Delivery& message);

    /** How many messages were refused. */
    std::uint64_t Refused() const { return m_refused; }

  private:
    std::string ReasonAgainst(const Delivery& message) const;

    const std::set<std::string> m_users;
    std::atomic<std::uint64_t> m_refused{0};
    MinuteLog m_log;
};

} // namespace VtxQel

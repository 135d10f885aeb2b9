#pragma once

#include "broker/BrokerLink.h"

#include <mutex>
#include <string>

namespace VtxQel
{

/** The status of a link as both its connections and other threads see it; every operation locks for itself. */
class LinkState
{
  public:
    LinkStatus Get() const
    {
        const std::lock_guard lock(m_mutex);
        return m_status;
    }

    template <typename Change>
    void Update(Change change)
    {
        const std::lock_guard lock(m_mutex);
        change(m_status);
    }

  private:
    mutable std::mutex m_mutex;
    LinkStatus m_status;
};

} // namespace VtxQel

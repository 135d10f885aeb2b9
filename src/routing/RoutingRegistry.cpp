#include "routing/RoutingRegistry.h"

#include "logging/Log.h"

#include <boost/thread/lock_types.hpp>

namespace VtxQel
{

void RoutingRegistry::Add(const std::string& key, boost::shared_ptr<RoutingRegistryEntry> entry)
{
    const boost::unique_lock<boost::recursive_mutex> lock(m_lock);
    // The entry replaced is destroyed with the argument, after the lock is given up.
    m_entries[key].swap(entry);
}

bool RoutingRegistry::Remove(const std::string& key)
{
    // Held to the end, so that nobody adds or removes the key between the look-up and the erasure.
    const boost::unique_lock<boost::recursive_mutex> lock(m_lock);
    const bool present = Find(key) != nullptr;
    if (present)
    {
        return m_entries.erase(key) == 1;
    }
    QEL_LOG_ERROR("errorCode:QELERR_QEL_RMQ_DUPLICATE_KEY", "Removing non-existence routing key. %s", key.c_str());
    return false;
}

boost::shared_ptr<RoutingRegistryEntry> RoutingRegistry::Find(const std::string& key)
{
    const boost::unique_lock<boost::recursive_mutex> lock(m_lock);
    const auto found = m_entries.find(key);
    return found == m_entries.end() ? boost::shared_ptr<RoutingRegistryEntry>() : found->second;
}

} // namespace VtxQel

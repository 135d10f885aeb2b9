#pragma once

#include "routing/RoutingRegistryEntry.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <map>
#include <string>

namespace VtxQel
{

/**
 * RoutingRegistry maps a routing key (a topic, or a queue's name) to its entry.
 *
 * Every operation may be called from any thread and locks for its own duration only; callers never lock. An entry
 * handed out stays valid after it was removed. Keys match byte for byte: patterns are none of its business.
 */
class RoutingRegistry
{
  public:
    RoutingRegistry() = default;
    virtual ~RoutingRegistry() = default;
    RoutingRegistry(const RoutingRegistry&) = delete;
    RoutingRegistry& operator=(const RoutingRegistry&) = delete;

    /** Records the entry under the key, in place of one that is there already: the latest configuration counts. */
    virtual void Add(const std::string& key, boost::shared_ptr<RoutingRegistryEntry> entry);
    /** Erases the key. @return false, with an error line, when it was absent. */
    virtual bool Remove(const std::string& key);
    /** The key's entry, empty when it is absent. */
    virtual boost::shared_ptr<RoutingRegistryEntry> Find(const std::string& key);

  private:
    // Recursive because Remove calls Find, which a subclass may replace, while it holds the lock.
    boost::recursive_mutex m_lock;
    // Guarded by m_lock.
    std::map<std::string, boost::shared_ptr<RoutingRegistryEntry>> m_entries;
};

} // namespace VtxQel

#include "apps/LocalAppRegistry.h"

#include "apps/LocalAppEntry.h"

#include <boost/smart_ptr/make_shared.hpp>

namespace VtxQel
{

boost::shared_ptr<RegistryEntry> LocalAppRegistry::Lookup(std::string appName)
{
    const std::lock_guard lock(m_mutex);
    const auto position = m_entries.find(appName);
    return position == m_entries.end() ? nullptr : position->second;
}

void LocalAppRegistry::Reload(const std::vector<std::string>& names)
{
    const std::lock_guard lock(m_mutex);
    std::map<std::string, boost::shared_ptr<RegistryEntry>> entries;
    for (const std::string& name : names)
    {
        auto known = m_entries.extract(name);
        entries[name] = known.empty() ? boost::make_shared<LocalAppEntry>() : std::move(known.mapped());
    }
    m_entries.swap(entries);
}

} // namespace VtxQel

#pragma once

#include "common/AppRegistry.h"

#include <boost/shared_ptr.hpp>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace VtxQel
{

/** The entries of exactly the applications that have a drop-in file. Any thread may call. */
class LocalAppRegistry : public AppRegistry
{
  public:
    boost::shared_ptr<RegistryEntry> Lookup(std::string appName) override;

    /** From now on exactly these names are known; the entries of those that stay are kept. */
    void Reload(const std::vector<std::string>& names);

  private:
    std::mutex m_mutex;
    /** Guarded by m_mutex. */
    std::map<std::string, boost::shared_ptr<RegistryEntry>> m_entries;
};

} // namespace VtxQel

#pragma once

#include "apps/Application.h"

#include <boost/shared_ptr.hpp>

#include <map>
#include <shared_mutex>
#include <string>
#include <vector>

namespace VtxQel
{

/** The applications that this host knows, each with its messages and instances. Any thread may call. */
class ApplicationSet
{
  public:
    /** Everything that the context refers to outlives the set and the applications handed out. */
    explicit ApplicationSet(ApplicationContext context) : m_context(context) {}

    /** Adds, updates and removes so that exactly these applications remain; those that stay keep their messages. */
    void Reload(const std::vector<ApplicationSettings>& applications);
    /** Application::DropUnsent for all of them. */
    void DropUnsent();
    /** Application::Reconnected for all of them. */
    void Reconnected();
    /** The application of this name; empty when there is none. */
    boost::shared_ptr<Application> Find(const std::string& name) const;
    /** All of them, by name. */
    std::vector<boost::shared_ptr<Application>> All() const;

  private:
    const ApplicationContext m_context;
    mutable std::shared_mutex m_mutex;
    /** Guarded by m_mutex. */
    std::map<std::string, boost::shared_ptr<Application>> m_applications;
};

} // namespace VtxQel

#include "apps/ApplicationSet.h"

#include <boost/smart_ptr/make_shared.hpp>

namespace VtxQel
{

void ApplicationSet::Reload(const std::vector<ApplicationSettings>& applications)
{
    std::map<std::string, boost::shared_ptr<Application>> gone;
    {
        const std::unique_lock lock(m_mutex);
        gone.swap(m_applications);
        for (const ApplicationSettings& settings : applications)
        {
            auto known = gone.extract(settings.name);
            if (known.empty())
            {
                m_applications[settings.name] = boost::make_shared<Application>(settings, m_context);
                continue;
            }
            known.mapped()->UpdateSettings(settings);
            m_applications.insert(std::move(known));
        }
    }
    for (const auto& [name, application] : gone)
    {
        application->Remove("application " + name + " is no longer configured on this host");
    }
}

void ApplicationSet::DropUnsent()
{
    for (const boost::shared_ptr<Application>& application : All())
    {
        application->DropUnsent();
    }
}

void ApplicationSet::Reconnected()
{
    for (const boost::shared_ptr<Application>& application : All())
    {
        application->Reconnected();
    }
}

boost::shared_ptr<Application> ApplicationSet::Find(const std::string& name) const
{
    const std::shared_lock lock(m_mutex);
    const auto position = m_applications.find(name);
    return position == m_applications.end() ? nullptr : position->second;
}

std::vector<boost::shared_ptr<Application>> ApplicationSet::All() const
{
    const std::shared_lock lock(m_mutex);
    std::vector<boost::shared_ptr<Application>> all;
    all.reserve(m_applications.size());
    for (const auto& [name, application] : m_applications)
    {
        all.push_back(application);
    }
    return all;
}

} // namespace VtxQel

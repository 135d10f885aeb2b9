#pragma once

#include "common/AppRegistry.h"
#include "fakes/Answers.h"

#include <boost/make_shared.hpp>

#include <map>
#include <string>
#include <vector>

namespace VtxQel::Fakes
{

/** An application's record that notes its changes, with the application's name. */
class FakeAppRegistryEntry : public AppRegistryEntry
{
  public:
    FakeAppRegistryEntry(Journal& journal, std::string applicationName)
        : answers(journal), name(std::move(applicationName))
    {
    }

    const std::vector<std::string>& GetTopics() const override
    {
        answers.To("entry.GetTopics(" + name + ")");
        return topics;
    }
    void AddTopic(const std::string& topic) override
    {
        answers.To("entry.AddTopic(" + name + ", " + topic + ")");
        topics.push_back(topic);
    }
    void ClearTopics() override
    {
        answers.To("entry.ClearTopics(" + name + ")");
        topics.clear();
    }

    mutable Answers answers;
    std::string name;
    std::vector<std::string> topics;
};

/** The applications that a test adds. */
class FakeAppRegistry : public AppRegistry
{
  public:
    explicit FakeAppRegistry(Journal& journal) : answers(journal), m_journal(journal) {}

    boost::shared_ptr<RegistryEntry> Lookup(std::string appName) override
    {
        answers.To("apps.Lookup(" + appName + ")");
        const auto found = entries.find(appName);
        return found == entries.end() ? boost::shared_ptr<RegistryEntry>() : found->second;
    }

    boost::shared_ptr<FakeAppRegistryEntry> AddApp(const std::string& name)
    {
        auto entry = boost::make_shared<FakeAppRegistryEntry>(m_journal, name);
        entries[name] = entry;
        return entry;
    }

    Answers answers;
    std::map<std::string, boost::shared_ptr<RegistryEntry>> entries;

  private:
    Journal& m_journal;
};

} // namespace VtxQel::Fakes

#pragma once

#include "fakes/Answers.h"
#include "routing/RoutingRegistry.h"

#include <string>

namespace VtxQel::Fakes
{

/** The real registry with a journal: a refused Find is empty, a refused Remove says false and removes nothing. */
class FakeRoutingRegistry : public RoutingRegistry
{
  public:
    explicit FakeRoutingRegistry(Journal& journal) : answers(journal) {}

    void Add(const std::string& key, boost::shared_ptr<RoutingRegistryEntry> entry) override
    {
        if (answers.To("registry.Add(" + key + ")"))
        {
            RoutingRegistry::Add(key, entry);
        }
    }
    bool Remove(const std::string& key) override
    {
        return answers.To("registry.Remove(" + key + ")") && RoutingRegistry::Remove(key);
    }
    boost::shared_ptr<RoutingRegistryEntry> Find(const std::string& key) override
    {
        return answers.To("registry.Find(" + key + ")") ? RoutingRegistry::Find(key)
                                                        : boost::shared_ptr<RoutingRegistryEntry>();
    }

    /** What is stored, past the journal. */
    boost::shared_ptr<RoutingRegistryEntry> Stored(const std::string& key) { return RoutingRegistry::Find(key); }

    Answers answers;
};

} // namespace VtxQel::Fakes

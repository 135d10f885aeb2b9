#pragma once

#include "TopicRule.h"
#include "apps/Subscriptions.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace VtxQel::Fuzz
{

/**
 * What Subscriptions promises, written down without an index: every question looks at every topic. The applications of
 * its answers are sorted.
 */
class SubscriptionsModel
{
  public:
    explicit SubscriptionsModel(bool wildcards) : m_wildcards(wildcards) {}

    void Change(char what, const std::string& application, const std::string& queue, const std::string& text)
    {
        switch (what)
        {
        case 'B':
            m_applications[application].state = ConfigurationState::applying;
            m_applications[application].coming = {};
            break;
        case 'T':
            m_applications[application].Target().queueOfTopic[text] = queue;
            break;
        case 'Q':
            m_applications[application].Target().queues.insert(text);
            AddOwner(application, text);
            break;
        case 'C':
            Commit(m_applications[application]);
            break;
        case 'A':
            m_applications[application] = {ConfigurationState::failed, text, {}, {}};
            break;
        case 'F':
            m_applications.erase(application);
            break;
        default:
            break;
        }
        DropOwners();
    }

    Receivers Resolve(const std::string& queue, const std::string& key) const
    {
        if (queue != "client" && queue != "urgent")
        {
            const auto owners = m_owners.find(queue);
            const bool isOwned = owners != m_owners.end() && !owners->second.empty();
            return isOwned ? Receivers{{owners->second.front()}, false} : Receivers{};
        }
        Receivers receivers;
        bool isServed = false;
        for (const auto& [name, application] : m_applications)
        {
            if (Has(application, queue, key))
            {
                const bool better = queue == "client" && Has(application.current, "urgent", key);
                isServed = isServed || better;
                if (!better)
                {
                    receivers.applications.push_back(name);
                }
            }
        }
        receivers.servedElsewhere = isServed && receivers.applications.empty();
        if (receivers.applications.empty() && !isServed)
        {
            AddAll(queue == "client" ? "urgent" : "client", key, receivers.applications);
        }
        return receivers;
    }

    ConfigurationStatus Status(const std::string& name) const
    {
        const auto found = m_applications.find(name);
        if (found == m_applications.end())
        {
            return {};
        }
        const Application& application = found->second;
        ConfigurationStatus status{application.state, application.error, {}, {}};
        for (const auto& [topic, queue] : application.current.queueOfTopic)
        {
            status.topics.push_back(topic);
        }
        status.queues.assign(application.current.queues.begin(), application.current.queues.end());
        return status;
    }

    bool IsConfiguring() const
    {
        return std::any_of(
            m_applications.begin(), m_applications.end(),
            [](const auto& named) { return named.second.state == ConfigurationState::applying; });
    }

  private:
    struct Wanted
    {
        std::map<std::string, std::string> queueOfTopic;
        std::set<std::string> queues;
    };
    struct Application
    {
        ConfigurationState state = ConfigurationState::missing;
        std::string error;
        Wanted current;
        Wanted coming;

        Wanted& Target() { return state == ConfigurationState::applying ? coming : current; }
    };

    static void Commit(Application& application)
    {
        if (application.state == ConfigurationState::applying)
        {
            application = {ConfigurationState::applied, "", application.coming, {}};
        }
    }

    void AddOwner(const std::string& application, const std::string& queue)
    {
        std::vector<std::string>& owners = m_owners[queue];
        if (std::find(owners.begin(), owners.end(), application) == owners.end())
        {
            owners.push_back(application);
        }
    }

    void DropOwners()
    {
        for (auto& [queue, owners] : m_owners)
        {
            std::erase_if(
                owners,
                [this, &name = queue](const std::string& owner)
                {
                    const auto found = m_applications.find(owner);
                    return found == m_applications.end() ||
                           !(found->second.current.queues.contains(name) || found->second.coming.queues.contains(name));
                });
        }
    }

    bool Has(const Wanted& wanted, const std::string& queue, const std::string& key) const
    {
        return std::any_of(
            wanted.queueOfTopic.begin(), wanted.queueOfTopic.end(),
            [&](const auto& topic)
            { return topic.second == queue && (m_wildcards ? Matches(topic.first, key) : topic.first == key); });
    }

    /** What was and what comes both count. */
    bool Has(const Application& application, const std::string& queue, const std::string& key) const
    {
        return Has(application.current, queue, key) || Has(application.coming, queue, key);
    }

    void AddAll(const std::string& queue, const std::string& key, std::vector<std::string>& names) const
    {
        for (const auto& [name, application] : m_applications)
        {
            if (Has(application, queue, key))
            {
                names.push_back(name);
            }
        }
    }

    const bool m_wildcards;
    std::map<std::string, Application> m_applications;
    /** In the order in which they became owners; the first one counts. */
    std::map<std::string, std::vector<std::string>> m_owners;
};

} // namespace VtxQel::Fuzz

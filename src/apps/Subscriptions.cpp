#include "apps/Subscriptions.h"

#include <algorithm>
#include <mutex>
#include <unordered_set>
#include <utility>

namespace VtxQel
{

namespace
{

constexpr std::size_t longestError = 1024;

} // namespace

Subscriptions::Subscriptions(std::string clientQueue, std::string priorityQueue, bool wildcards)
    : m_clientQueue(std::move(clientQueue)), m_priorityQueue(std::move(priorityQueue)), m_wildcards(wildcards)
{
}

void Subscriptions::Observe(Observer observer)
{
    m_observers.push_back(std::move(observer));
}

void Subscriptions::BeginConfiguration(const std::string& application)
{
    {
        const std::unique_lock lock(m_mutex);
        Subscriber& subscriber = Find(application);
        if (subscriber.state != ConfigurationState::applying)
        {
            subscriber.state = ConfigurationState::applying;
            ++m_configuring;
        }
        EraseAllBut(subscriber, subscriber.coming, subscriber.current);
        subscriber.coming = {};
    }
    Notify(SubscriptionChange::Kind::state, application, "");
}

void Subscriptions::AddTopic(const std::string& application, const std::string& topic, const std::string& queue)
{
    {
        const std::unique_lock lock(m_mutex);
        Subscriber& subscriber = Find(application);
        Wanted& target = Target(subscriber);
        const auto registered = target.queueOfTopic.find(topic);
        if (registered != target.queueOfTopic.end() && registered->second != queue)
        {
            const Wanted before{{*registered}, {}};
            target.queueOfTopic.erase(registered);
            EraseAllBut(subscriber, before, subscriber.current);
        }
        target.queueOfTopic[topic] = queue;
        Insert(subscriber, topic, queue);
    }
    Notify(SubscriptionChange::Kind::topicAdded, application, topic);
}

void Subscriptions::AddQueue(const std::string& application, const std::string& queue)
{
    {
        const std::unique_lock lock(m_mutex);
        Subscriber& subscriber = Find(application);
        Target(subscriber).queues.insert(queue);
        Entries& owners = m_owners[queue];
        const Entry owner{&subscriber, 0};
        if (std::find(owners.begin(), owners.end(), owner) == owners.end())
        {
            owners.push_back(owner);
        }
    }
    Notify(SubscriptionChange::Kind::queueAdded, application, queue);
}

void Subscriptions::Commit(const std::string& application)
{
    {
        const std::unique_lock lock(m_mutex);
        Subscriber& subscriber = Find(application);
        if (subscriber.state != ConfigurationState::applying)
        {
            return;
        }
        EraseAllBut(subscriber, subscriber.current, subscriber.coming);
        subscriber.current = std::move(subscriber.coming);
        ++subscriber.generation;
        End(subscriber, ConfigurationState::applied, "");
    }
    Notify(SubscriptionChange::Kind::state, application, "");
}

void Subscriptions::Abort(const std::string& application, const std::string& error)
{
    {
        const std::unique_lock lock(m_mutex);
        Subscriber& subscriber = Find(application);
        EraseAllBut(subscriber, subscriber.current, {});
        EraseAllBut(subscriber, subscriber.coming, {});
        subscriber.current = {};
        // A name in it can be of any length, and applications take no message of any length.
        End(subscriber, ConfigurationState::failed, error.substr(0, longestError));
    }
    Notify(SubscriptionChange::Kind::state, application, "");
}

void Subscriptions::Forget(const std::string& application)
{
    {
        const std::unique_lock lock(m_mutex);
        const auto position = m_subscribers.find(application);
        if (position == m_subscribers.end())
        {
            return;
        }
        Subscriber& subscriber = *position->second;
        EraseAllBut(subscriber, subscriber.current, {});
        EraseAllBut(subscriber, subscriber.coming, {});
        End(subscriber, ConfigurationState::missing, "");
        m_subscribers.erase(position);
    }
    Notify(SubscriptionChange::Kind::state, application, "");
}

Receivers Subscriptions::Resolve(const std::string& queue, const std::string& routingKey) const
{
    const std::shared_lock lock(m_mutex);
    if (IsClientQueue(queue))
    {
        return ResolveTopic(IsPriorityQueue(queue), routingKey);
    }
    Receivers receivers;
    const auto owners = m_owners.find(queue);
    if (owners != m_owners.end())
    {
        receivers.applications.push_back(owners->second.front().subscriber->name);
    }
    return receivers;
}

bool Subscriptions::IsConfiguring() const
{
    const std::shared_lock lock(m_mutex);
    return m_configuring != 0;
}

ConfigurationStatus Subscriptions::Status(const std::string& application) const
{
    const std::shared_lock lock(m_mutex);
    ConfigurationStatus status;
    const auto position = m_subscribers.find(application);
    if (position == m_subscribers.end())
    {
        return status;
    }
    const Subscriber& subscriber = *position->second;
    status.state = subscriber.state;
    status.error = subscriber.error;
    status.topics.reserve(subscriber.current.queueOfTopic.size());
    for (const auto& [topic, queue] : subscriber.current.queueOfTopic)
    {
        status.topics.push_back(topic);
    }
    status.queues.assign(subscriber.current.queues.begin(), subscriber.current.queues.end());
    return status;
}

ConfigurationSummary Subscriptions::Summary(const std::string& application) const
{
    const std::shared_lock lock(m_mutex);
    const auto position = m_subscribers.find(application);
    if (position == m_subscribers.end())
    {
        return {};
    }
    const Subscriber& subscriber = *position->second;
    return {
        subscriber.state, subscriber.error, subscriber.current.queueOfTopic.size(), subscriber.current.queues.size()};
}

bool Subscriptions::IsPattern(const std::string& topic) const
{
    return m_wildcards && TopicTrie<Entry>::HasWildcard(topic);
}

Subscriptions::Subscriber& Subscriptions::Find(const std::string& application)
{
    std::unique_ptr<Subscriber>& subscriber = m_subscribers[application];
    if (!subscriber)
    {
        subscriber = std::make_unique<Subscriber>();
        subscriber->name = application;
    }
    return *subscriber;
}

Subscriptions::Wanted& Subscriptions::Target(Subscriber& subscriber)
{
    return subscriber.state == ConfigurationState::applying ? subscriber.coming : subscriber.current;
}

Subscriptions::Patterns& Subscriptions::PatternsOf(const std::string& queue)
{
    return IsPriorityQueue(queue) ? m_urgent : m_normal;
}

void Subscriptions::Insert(const Subscriber& subscriber, const std::string& topic, const std::string& queue)
{
    const auto current = subscriber.current.queueOfTopic.find(topic);
    const bool isCommitted = current != subscriber.current.queueOfTopic.end() && current->second == queue;
    const Entry entry{&subscriber, isCommitted ? subscriber.generation : subscriber.generation + 1};
    // It may be there already: from the configuration in force, or registered twice.
    Erase(subscriber, topic, queue);
    Patterns& patterns = PatternsOf(queue);
    if (IsPattern(topic))
    {
        patterns.wild.Add(topic, entry);
    }
    else
    {
        patterns.exact[topic].push_back(entry);
    }
}

void Subscriptions::Erase(const Subscriber& subscriber, const std::string& topic, const std::string& queue)
{
    Patterns& patterns = PatternsOf(queue);
    const Entry entry{&subscriber, 0};
    if (IsPattern(topic))
    {
        patterns.wild.Remove(topic, entry);
        return;
    }
    const auto position = patterns.exact.find(topic);
    if (position != patterns.exact.end())
    {
        std::erase(position->second, entry);
        if (position->second.empty())
        {
            patterns.exact.erase(position);
        }
    }
}

void Subscriptions::EraseOwner(const Subscriber& subscriber, const std::string& queue)
{
    const auto position = m_owners.find(queue);
    if (position != m_owners.end())
    {
        std::erase(position->second, Entry{&subscriber, 0});
        if (position->second.empty())
        {
            m_owners.erase(position);
        }
    }
}

void Subscriptions::EraseAllBut(const Subscriber& subscriber, const Wanted& gone, const Wanted& kept)
{
    for (const auto& [topic, queue] : gone.queueOfTopic)
    {
        const auto same = kept.queueOfTopic.find(topic);
        if (same == kept.queueOfTopic.end() || same->second != queue)
        {
            Erase(subscriber, topic, queue);
        }
    }
    for (const std::string& queue : gone.queues)
    {
        if (!kept.queues.contains(queue))
        {
            EraseOwner(subscriber, queue);
        }
    }
}

void Subscriptions::End(Subscriber& subscriber, ConfigurationState state, const std::string& error)
{
    if (subscriber.state == ConfigurationState::applying)
    {
        --m_configuring;
    }
    subscriber.coming = {};
    subscriber.state = state;
    subscriber.error = error;
}

Subscriptions::Entries Subscriptions::Match(const Patterns& patterns, const std::string& routingKey)
{
    Entries entries;
    const auto exact = patterns.exact.find(routingKey);
    if (exact != patterns.exact.end())
    {
        entries = exact->second;
    }
    if (!patterns.wild.IsEmpty())
    {
        patterns.wild.Match(routingKey, [&entries](const Entry& entry) { entries.push_back(entry); });
    }
    return entries;
}

Receivers Subscriptions::ResolveTopic(bool urgent, const std::string& routingKey) const
{
    Receivers receivers;
    Entries taking = Match(urgent ? m_urgent : m_normal, routingKey);
    const Entries other = urgent && !taking.empty() ? Entries() : Match(urgent ? m_normal : m_urgent, routingKey);
    if (taking.empty())
    {
        taking = other;
    }
    else
    {
        // A topic that is only coming may not be bound yet: there may be no copy in the priority queue.
        std::unordered_set<const Subscriber*> served;
        for (const Entry& better : other)
        {
            if (better.IsCommitted())
            {
                served.insert(better.subscriber);
            }
        }
        const auto isServed = [&served](const Entry& entry) { return served.contains(entry.subscriber); };
        receivers.servedElsewhere = std::erase_if(taking, isServed) != 0 && taking.empty();
    }
    std::unordered_set<const Subscriber*> named;
    for (const Entry& entry : taking)
    {
        // Nearly always there is one, which is not worth a set.
        if (taking.size() == 1 || named.insert(entry.subscriber).second)
        {
            receivers.applications.push_back(entry.subscriber->name);
        }
    }
    return receivers;
}

void Subscriptions::Notify(SubscriptionChange::Kind kind, const std::string& application, const std::string& key) const
{
    const SubscriptionChange change{kind, application, key};
    for (const Observer& observer : m_observers)
    {
        observer(change);
    }
}

} // namespace VtxQel

#pragma once

#include "apps/TopicTrie.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace VtxQel
{

/** Where an application's configuration stands. */
enum class ConfigurationState
{
    missing,
    applying,
    applied,
    failed
};

/** An application's configuration as it is in force. */
struct ConfigurationStatus
{
    ConfigurationState state = ConfigurationState::missing;
    /** Why, when it failed. */
    std::string error;
    /** In alphabetical order. */
    std::vector<std::string> topics;
    std::vector<std::string> queues;
};

/** The same without the names. */
struct ConfigurationSummary
{
    ConfigurationState state = ConfigurationState::missing;
    std::string error;
    std::size_t topics = 0;
    std::size_t queues = 0;
};

/** What changed, for observers. */
struct SubscriptionChange
{
    enum class Kind
    {
        /** `key` became a topic of the application. */
        topicAdded,
        /** `key` became a queue of the application. */
        queueAdded,
        /** The application's ConfigurationStatus changed. */
        state
    };
    Kind kind;
    std::string application;
    std::string key;
};

/** Who a message is for. */
struct Receivers
{
    std::vector<std::string> applications;
    /** Nobody takes this copy because all whom it is for get the copy in the priority queue. */
    bool servedElsewhere = false;
};

/**
 * Subscriptions knows which application takes which message: by queue and topic pattern, and by the queue it owns.
 *
 * Configurations are built up by one thread: Begin, then Add..., then Commit or Abort. Meanwhile what was and what
 * comes both count; Commit leaves what came, Abort nothing. A message of a client queue is for the applications that
 * have a matching topic there; one that has a matching topic in the priority queue as well gets that queue's copy only.
 * When no topic of the queue matches, those of the other one count: the message may have been routed just before a
 * topic moved.
 *
 * Resolve() and the other queries may be called from any thread and see each operation whole. Observers are called on
 * the changing thread, without a lock.
 */
class Subscriptions
{
  public:
    using Observer = std::function<void(const SubscriptionChange&)>;

    /** @param wildcards whether `*` and `#` in topics stand for words (a topic exchange). */
    Subscriptions(std::string clientQueue, std::string priorityQueue, bool wildcards);

    /** Adds an observer for good. Call before anything changes. */
    void Observe(Observer observer);

    void BeginConfiguration(const std::string& application);
    /** A topic registered again for another queue is for that queue only. Without Begin it counts at once. */
    void AddTopic(const std::string& application, const std::string& topic, const std::string& queue);
    void AddQueue(const std::string& application, const std::string& queue);
    /** Without Begin nothing changes. */
    void Commit(const std::string& application);
    void Abort(const std::string& application, const std::string& error);
    /** The application is gone with everything it had. */
    void Forget(const std::string& application);

    /** Whom a message from this queue with this routing key is for. */
    Receivers Resolve(const std::string& queue, const std::string& routingKey) const;
    /** Whether any configuration is being carried out. */
    bool IsConfiguring() const;
    ConfigurationStatus Status(const std::string& application) const;
    ConfigurationSummary Summary(const std::string& application) const;

    bool IsPriorityQueue(const std::string& queue) const { return queue == m_priorityQueue; }
    bool IsClientQueue(const std::string& queue) const { return queue == m_clientQueue || queue == m_priorityQueue; }
    /** Whether a topic stands for more than one routing key. */
    bool IsPattern(const std::string& topic) const;

  private:
    struct Wanted
    {
        std::map<std::string, std::string> queueOfTopic;
        std::set<std::string> queues;
    };
    struct Subscriber
    {
        std::string name;
        ConfigurationState state = ConfigurationState::missing;
        std::string error;
        Wanted current;
        Wanted coming;
        /** Counts the configurations that took effect. */
        std::uint64_t generation = 0;
    };
    /** A pattern's subscriber. What a configuration brings belongs to the next generation until it is committed. */
    struct Entry
    {
        const Subscriber* subscriber;
        std::uint64_t generation;

        bool IsCommitted() const { return generation <= subscriber->generation; }
        /** One subscriber has a pattern once in a queue. */
        bool operator==(const Entry& other) const { return subscriber == other.subscriber; }
    };
    using Entries = std::vector<Entry>;
    /** The patterns of one of the two client queues. */
    struct Patterns
    {
        std::unordered_map<std::string, Entries> exact;
        TopicTrie<Entry> wild;
    };

    Subscriber& Find(const std::string& application);
    Wanted& Target(Subscriber& subscriber);
    Patterns& PatternsOf(const std::string& queue);
    void Insert(const Subscriber& subscriber, const std::string& topic, const std::string& queue);
    void Erase(const Subscriber& subscriber, const std::string& topic, const std::string& queue);
    void EraseOwner(const Subscriber& subscriber, const std::string& queue);
    /** Takes out of the index what `gone` has and `kept` has not. */
    void EraseAllBut(const Subscriber& subscriber, const Wanted& gone, const Wanted& kept);
    void End(Subscriber& subscriber, ConfigurationState state, const std::string& error);
    static Entries Match(const Patterns& patterns, const std::string& routingKey);
    Receivers ResolveTopic(bool urgent, const std::string& routingKey) const;
    void Notify(SubscriptionChange::Kind kind, const std::string& application, const std::string& key) const;

    const std::string m_clientQueue;
    const std::string m_priorityQueue;
    const bool m_wildcards;
    std::vector<Observer> m_observers;

    mutable std::shared_mutex m_mutex;
    /** Guarded by m_mutex, like everything below. Addresses are stable while an application is known. */
    std::map<std::string, std::unique_ptr<Subscriber>> m_subscribers;
    Patterns m_normal;
    Patterns m_urgent;
    std::unordered_map<std::string, Entries> m_owners;
    std::size_t m_configuring = 0;
};

} // namespace VtxQel

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>
#include <utility>

namespace VtxQel
{

/** A message's ordering key, hashed; 0 is none. Two keys with the same number are treated as one. */
using OrderingKey = std::uint64_t;

/**
 * KeyedInstances remembers which instance of an application gets the messages of an ordering key.
 *
 * A key stays with its instance until that is removed. One of which the instance has nothing, and which has been quiet
 * for a while, is forgotten: that bounds the memory and lets instances that came later have their part. Locks nothing.
 */
class KeyedInstances
{
  public:
    using Instance = std::uint64_t;
    using TimePoint = std::chrono::steady_clock::time_point;

    /** The key's instance; nothing when it may be any. */
    std::optional<Instance> Find(OrderingKey key) const;
    /** Whether the instance of a bound key has nothing of it at present. */
    bool IsIdle(OrderingKey key) const;
    /** One more message of the key is the instance's, which is the one of Find() if there is any. */
    void Take(OrderingKey key, Instance instance, TimePoint now);
    /** One of them is settled or taken back. */
    void Release(OrderingKey key, TimePoint now);
    /** The instance is gone. */
    void Remove(Instance instance);
    std::size_t Size() const { return m_bindings.size(); }

    static constexpr std::chrono::seconds longestIdle{60};
    static constexpr std::size_t mostIdle = 65536;

  private:
    using IdleKeys = std::list<std::pair<OrderingKey, TimePoint>>;
    struct Binding
    {
        Instance instance = 0;
        std::size_t held = 0;
        /** Its place while nothing is held. */
        IdleKeys::iterator idle;
    };

    void ForgetQuiet(TimePoint now);

    std::unordered_map<OrderingKey, Binding> m_bindings;
    /** In the order in which they became idle. */
    IdleKeys m_idle;
};

} // namespace VtxQel

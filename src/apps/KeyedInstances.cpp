#include "apps/KeyedInstances.h"

namespace VtxQel
{

std::optional<KeyedInstances::Instance> KeyedInstances::Find(OrderingKey key) const
{
    const auto position = m_bindings.find(key);
    return position == m_bindings.end() ? std::nullopt : std::optional(position->second.instance);
}

bool KeyedInstances::IsIdle(OrderingKey key) const
{
    const auto position = m_bindings.find(key);
    return position != m_bindings.end() && position->second.held == 0;
}

void KeyedInstances::Take(OrderingKey key, Instance instance, TimePoint now)
{
    const auto [position, isNew] = m_bindings.try_emplace(key);
    Binding& binding = position->second;
    if (!isNew && binding.held == 0)
    {
        m_idle.erase(binding.idle);
    }
    binding.instance = instance;
    ++binding.held;
    ForgetQuiet(now);
}

void KeyedInstances::Release(OrderingKey key, TimePoint now)
{
    const auto position = m_bindings.find(key);
    if (position != m_bindings.end() && position->second.held != 0 && --position->second.held == 0)
    {
        position->second.idle = m_idle.insert(m_idle.end(), {key, now});
    }
}

void KeyedInstances::Remove(Instance instance)
{
    for (auto position = m_bindings.begin(); position != m_bindings.end();)
    {
        const auto current = position++;
        if (current->second.instance != instance)
        {
            continue;
        }
        if (current->second.held == 0)
        {
            m_idle.erase(current->second.idle);
        }
        m_bindings.erase(current);
    }
}

void KeyedInstances::ForgetQuiet(TimePoint now)
{
    while (!m_idle.empty() && (m_idle.size() > mostIdle || m_idle.front().second + longestIdle <= now))
    {
        m_bindings.erase(m_idle.front().first);
        m_idle.pop_front();
    }
}

} // namespace VtxQel

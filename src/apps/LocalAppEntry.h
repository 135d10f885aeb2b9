#pragma once

#include "common/AppRegistry.h"

#include <string>
#include <vector>

namespace VtxQel
{

/** A known application's record of what was registered for it. Threads: as AppRegistryEntry says. */
class LocalAppEntry : public AppRegistryEntry
{
  public:
    const std::vector<std::string>& GetTopics() const override { return m_topics; }
    void AddTopic(const std::string& topic) override { m_topics.push_back(topic); }
    void ClearTopics() override { m_topics.clear(); }

  private:
    std::vector<std::string> m_topics;
};

} // namespace VtxQel

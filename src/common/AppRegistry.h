#pragma once

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace VtxQel
{

/** Base of what a registry can hold under a name. */
class RegistryEntry
{
  public:
    virtual ~RegistryEntry() = default;
};

/**
 * A local application's record of the topics and queues that were registered for it. The caller of a changing
 * operation makes sure that no other thread uses the entry meanwhile: configurations are carried out one at a time.
 */
class AppRegistryEntry : public RegistryEntry
{
  public:
    /** The topics and queue names recorded, in the order of recording; valid until the next change. */
    virtual const std::vector<std::string>& GetTopics() const = 0;
    /** Records a topic or a queue name; one recorded twice is listed twice. */
    virtual void AddTopic(const std::string& topic) = 0;
    /** Forgets everything recorded. */
    virtual void ClearTopics() = 0;
};

/** The applications that this host knows, by name. */
class AppRegistry
{
  public:
    virtual ~AppRegistry() = default;

    /** The application's entry, empty when the name is unknown. May be called from any thread. */
    virtual boost::shared_ptr<RegistryEntry> Lookup(std::string appName) = 0;
};

} // namespace VtxQel

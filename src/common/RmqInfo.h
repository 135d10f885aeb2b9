#pragma once

#include <string>

namespace VtxQel
{

/** The names that the agent uses on the broker. Set once before the agent's threads start, read-only from then on. */
class RmqInfo
{
  public:
    /** The exchange on which the applications' topics are bound. */
    std::string exchange;
    /** The queue for routes of normal priority. */
    std::string clientQueue;
    /** The queue for routes of any other priority. */
    std::string priorityQueue;
    /** "topic" or "direct": whether `*` and `#` in a topic are wildcards. */
    std::string exchangeType;
    /** Where messages that nobody can take end. */
    std::string deadLetterQueue;
};

} // namespace VtxQel

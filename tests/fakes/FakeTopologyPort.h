#pragma once

#include "broker/Topology.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace VtxQel::Fakes
{

/** A broker that records what it is asked and refuses or stays silent on demand. */
class FakeTopologyPort : public TopologyPort
{
  public:
    std::vector<RequestResult> Bind(const std::vector<Binding>& bindings) override
    {
        std::vector<RequestResult> results;
        for (const Binding& binding : bindings)
        {
            results.push_back(Ask("bind " + binding.queue + " " + binding.topic));
            if (results.back().answer == Answer::ok)
            {
                bound.insert(binding.queue + " " + binding.topic);
            }
        }
        mostAtOnce = std::max(mostAtOnce, bindings.size());
        return results;
    }
    RequestResult Unbind(const Binding& binding) override
    {
        RequestResult result = Ask("unbind " + binding.queue + " " + binding.topic);
        if (result.answer == Answer::ok)
        {
            bound.erase(binding.queue + " " + binding.topic);
        }
        return result;
    }
    RequestResult Consume(const std::string& queue) override { return Ask("consume " + queue); }
    RequestResult StopConsuming(const std::string& queue) override { return Ask("stop " + queue); }

    std::vector<std::string> asked;
    std::set<std::string> refused;
    std::set<std::string> unanswered;
    std::set<std::string> bound;
    std::size_t mostAtOnce = 0;

    /** Called with each request before it is answered. */
    std::function<void(const std::string& what)> onAsked;

  private:
    RequestResult Ask(const std::string& what)
    {
        asked.push_back(what);
        if (onAsked)
        {
            onAsked(what);
        }
        if (refused.contains(what))
        {
            return {Answer::refused, 403, "refused"};
        }
        return unanswered.contains(what) ? RequestResult{Answer::unanswered, 0, "silence"}
                                         : RequestResult{Answer::ok, 0, ""};
    }
};

} // namespace VtxQel::Fakes

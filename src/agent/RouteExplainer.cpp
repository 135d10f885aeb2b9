#include "agent/RouteExplainer.h"

#include "agent/StateNames.h"
#include "apps/TopicTrie.h"
#include "common/MessageTypes.h"

#include <algorithm>
#include <map>
#include <utility>

namespace VtxQel
{

namespace
{

const char* KindOf(const RoutingRegistryEntry& route)
{
    return route.routeType == RoutingRegistryEntry::topicRoute   ? "topic"
           : route.routeType == RoutingRegistryEntry::queueRoute ? "queue"
                                                                 : "own";
}

bool Contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string Joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
    {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

} // namespace

RouteExplainer::RouteExplainer(const BrokerSettings& settings, ExplainerSources sources)
    : m_info(settings.names), m_controlUsers(settings.controlUsers), m_sources(sources)
{
}

RouteExplanation RouteExplainer::Explain(const ExplainQuery& query) const
{
    RouteExplanation explanation;
    explanation.exchange = m_info.exchange;
    if (!query.queue.empty() && !IsConsumed(query.queue))
    {
        explanation.why = "the agent has no such queue: it is neither its client queue nor its priority queue, nor one "
                          "of an application's configuration";
        return explanation;
    }
    explanation.copies = Copies(query);
    for (ExplainedCopy& copy : explanation.copies)
    {
        FindRoute(query, copy);
        if (IsControlType(query.type))
        {
            ExplainControl(query, copy);
        }
        else
        {
            FindReceivers(query, copy);
        }
    }
    if (explanation.copies.empty())
    {
        explanation.why = "no application's topic fits, and no queue of the agent has this name: the broker brings the "
                          "agent no such message";
    }
    return explanation;
}

bool RouteExplainer::IsConsumed(const std::string& queue) const
{
    return m_sources.subscriptions.IsClientQueue(queue) || Contains(m_sources.topology.Queues(), queue);
}

bool RouteExplainer::Fits(const std::string& topic, const std::string& routingKey) const
{
    if (!m_sources.subscriptions.IsPattern(topic))
    {
        return topic == routingKey;
    }
    bool fits = false;
    TopicTrie<bool> pattern;
    pattern.Add(topic, true);
    pattern.Match(routingKey, [&fits](bool) { fits = true; });
    return fits;
}

std::vector<ExplainedCopy> RouteExplainer::Copies(const ExplainQuery& query) const
{
    std::map<std::string, ExplainedCopy> copies;
    for (const RouteUse& use :
         m_sources.topology.BindingsWhere([&](const std::string& topic) { return Fits(topic, query.routingKey); }))
    {
        copies[use.queue].bindings.push_back({use.name, NameOf(ROUTE_STATES, use.state), use.applications});
    }
    if (IsConsumed(query.routingKey))
    {
        copies[query.routingKey].named = true;
    }
    if (!query.queue.empty())
    {
        // Also when nothing of ours brings it there: somebody else may have bound the queue.
        copies = {{query.queue, copies[query.queue]}};
    }
    std::vector<ExplainedCopy> list;
    for (auto& [queue, copy] : copies)
    {
        copy.queue = queue;
        list.push_back(std::move(copy));
    }
    return list;
}

void RouteExplainer::FindRoute(const ExplainQuery& query, ExplainedCopy& copy) const
{
    const ServingRoute route = m_sources.client.RouteOf(query.routingKey, copy.queue);
    if (route.entry)
    {
        copy.routeKey = *route.key;
        copy.routeKind = KindOf(*route.entry);
    }
}

void RouteExplainer::FindReceivers(const ExplainQuery& query, ExplainedCopy& copy) const
{
    if (query.type == LOOP_PROBE_TYPE && copy.queue == m_info.clientQueue)
    {
        copy.goesTo = "agent";
        copy.why = "the agent sends such messages to itself to see that they arrive";
        return;
    }
    const Takers takers = m_sources.dispatcher.TakersOf(copy.queue, query.routingKey, query.appId);
    for (const auto& application : takers.applications)
    {
        const ApplicationSnapshot state = application->Snapshot();
        copy.receivers.push_back(
            {application->Name(), NameOf(FLOWS, state.flow), state.sessions,
             takers.named ? "the app-id names it" : WhyTaken(copy, application->Name())});
    }
    if (!takers.applications.empty())
    {
        copy.goesTo = "applications";
    }
    else if (takers.servedElsewhere)
    {
        copy.goesTo = "other_copy";
        copy.why = "all whom it is for get the copy in " + m_info.priorityQueue;
    }
    else if (m_sources.subscriptions.IsConfiguring())
    {
        copy.goesTo = "waits";
        copy.why = "nobody takes it yet, but a configuration is being carried out: it waits for the end of that";
    }
    else
    {
        copy.goesTo = "dead_letters";
        copy.why = (query.appId.empty() ? std::string() : "there is no application " + query.appId + ", and ") +
                   "no application's topic fits: it goes to " + m_info.deadLetterQueue;
    }
}

void RouteExplainer::ExplainControl(const ExplainQuery& query, ExplainedCopy& copy) const
{
    copy.goesTo = "agent";
    if (query.type == PING_REQUEST_TYPE)
    {
        copy.why = "the agent answers pings";
    }
    else if (query.type == REASSIGN_HINT_TYPE)
    {
        copy.why = "the agent moves to another broker at hints";
    }
    else
    {
        const std::string application = m_sources.dispatcher.ApplicationFor(copy.queue, query.routingKey, query.appId);
        const bool known = m_sources.dispatcher.TakersOf(copy.queue, query.routingKey, application).named;
        copy.goesTo = known ? "agent" : "dead_letters";
        copy.why = application.empty() ? "a configuration without an app-id is for nobody"
                   : known             ? "the agent carries out configurations, this one for " + application
                                       : "there is no application " + application + " to configure";
    }
    if (!m_controlUsers.empty())
    {
        copy.why += "; only with a user-id of broker.control_users: " + Joined(m_controlUsers);
    }
}

std::string RouteExplainer::WhyTaken(const ExplainedCopy& copy, const std::string& application) const
{
    std::vector<std::string> topics;
    for (const ExplainedBinding& binding : copy.bindings)
    {
        if (Contains(binding.applications, application))
        {
            topics.push_back(binding.topic);
        }
    }
    if (!topics.empty())
    {
        return "its topic " + Joined(topics);
    }
    return m_sources.subscriptions.IsClientQueue(copy.queue) ? "its topic in the other client queue" : "its queue";
}

} // namespace VtxQel

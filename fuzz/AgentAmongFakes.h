#pragma once

#include "HandlerAmongFakes.h"
#include "Require.h"
#include "agent/AgentMsgHandler.h"
#include "apps/LocalAppRegistry.h"
#include "apps/MessageConversion.h"
#include "fakes/FakeTopologyPort.h"
#include "fakes/TopologyClient.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace VtxQel::Fuzz
{

/** The agent's handler with two applications and all that it keeps in agreement, on a fake broker. */
class AgentAmongFakes
{
  public:
    AgentAmongFakes()
    {
        m_registry->Reload({"one", "two"});
        for (const std::string& queue : {m_info->clientQueue, m_info->priorityQueue})
        {
            m_routes->Add(queue, boost::make_shared<RoutingRegistryEntry>(m_handler, 0, channelPriorityNormal));
        }
    }

    /** Gives the handler a configuration for the application; `failure` says which request fails and how. */
    void Configure(const std::string& application, std::uint32_t failure, const std::string& body)
    {
        FailAt(failure >> 1U, (failure & 1U) != 0);
        const ConfigurationStatus before = m_subscriptions.Status(application);
        const auto message =
            boost::make_shared<Fakes::FakeRmqMessage>(m_notes, std::string(APP_INIT_CONFIG_TYPE), body);
        message->appName = application;
        const bool taken = Handle(message);
        const ConfigurationStatus after = m_subscriptions.Status(application);
        const auto config = ConfigIn(body);
        if (!config)
        {
            Require(!taken && after.topics == before.topics, "what is no configuration changes nothing");
        }
        else if (taken)
        {
            CheckApplied(*config, after);
        }
        else
        {
            Require(after.state == ConfigurationState::failed, "a failure is known");
            Require(after.topics.empty() && after.queues.empty(), "after a failure nothing is left");
        }
        CheckAgreement();
        CheckShown(after);
    }

    /** A fresh start finds in the journal what is in force. */
    void Finish()
    {
        Topology fresh(m_port, m_journal, *m_info);
        fresh.Restore([](const std::string&) { return true; });
        Require(fresh.Bindings() == m_topology.Bindings(), "the journal holds every binding");
        Require(fresh.Queues() == m_topology.Queues(), "the journal holds every queue");
    }

  private:
    /** Opened once: that takes longer than all the rest. */
    static Journal& EmptyJournal()
    {
        static Journal journal(":memory:");
        journal.Replace({});
        return journal;
    }

    static boost::shared_ptr<RmqInfo> Info()
    {
        auto info = boost::make_shared<RmqInfo>();
        info->exchange = "exchange";
        info->clientQueue = "client";
        info->priorityQueue = "urgent";
        info->deadLetterQueue = "client.dead";
        return info;
    }

    /** Unbinding is never refused: that ends the process, by design. */
    void FailAt(std::uint32_t place, bool silent)
    {
        m_port.onAsked = [this, left = place, silent](const std::string& what) mutable
        {
            m_port.refused.clear();
            m_port.unanswered.clear();
            if (left > 0 && --left == 0 && !what.starts_with("unbind "))
            {
                (silent ? m_port.unanswered : m_port.refused).insert(what);
            }
        };
    }

    /** Whether the handler took it; an exception of those that it documents counts as a no. */
    bool Handle(const boost::shared_ptr<RmqMessage>& message)
    {
        try
        {
            return m_handler->Callback(message);
        }
        catch (const RmqException&)
        {
            return false;
        }
    }

    static void CheckApplied(
        const brelix::vtx::messaging::appinit::AppInitConfigMsg& config, const ConfigurationStatus& status)
    {
        Require(status.state == ConfigurationState::applied, "what was carried out is in force");
        std::set<std::string> topics;
        for (const auto& topic : config.topic_info())
        {
            topics.insert(topic.topic());
        }
        const std::set<std::string> queues(config.queue_name().begin(), config.queue_name().end());
        Require(std::equal(topics.begin(), topics.end(), status.topics.begin(), status.topics.end()), "every topic is");
        Require(std::equal(queues.begin(), queues.end(), status.queues.begin(), status.queues.end()), "every queue is");
    }

    void CheckAgreement()
    {
        std::set<std::string> bound;
        for (const Binding& binding : m_topology.Bindings())
        {
            bound.insert(binding.queue + " " + binding.topic);
            Require(m_routes->Find(binding.topic) != nullptr, "every topic that is bound has a route");
            const Receivers receivers = m_subscriptions.Resolve(binding.queue, binding.topic);
            Require(
                !receivers.applications.empty() || receivers.servedElsewhere,
                "every topic that is bound has somebody who takes it");
        }
        Require(bound == m_port.bound, "the broker has the bindings that the topology knows");
        Require(!m_subscriptions.IsConfiguring(), "every configuration has ended");
    }

    static void CheckShown(const ConfigurationStatus& status)
    {
        qel::apps::v1::Configuration shown;
        ToProto(status, shown);
        qel::apps::v1::Configuration received;
        Require(received.ParseFromString(shown.SerializeAsString()), "the application can read its configuration");
    }

    Fakes::Journal m_notes;
    Fakes::FakeTopologyPort m_port;
    const boost::shared_ptr<RmqInfo> m_info = Info();
    Journal& m_journal = EmptyJournal();
    Topology m_topology{m_port, m_journal, *m_info};
    Subscriptions m_subscriptions{"client", "urgent", true};
    /** Where nothing can be written. */
    ConfigurationLog m_log{"/dev/null/configurations"};
    const boost::shared_ptr<RoutingRegistry> m_routes = boost::make_shared<RoutingRegistry>();
    const boost::shared_ptr<LocalAppRegistry> m_registry = boost::make_shared<LocalAppRegistry>();
    const boost::shared_ptr<Fakes::FakeAppDispatcher> m_dispatcher =
        boost::make_shared<Fakes::FakeAppDispatcher>(m_notes);
    const boost::shared_ptr<EndpointController> m_endpoint;
    const boost::shared_ptr<Fakes::TopologyClient> m_client = boost::make_shared<Fakes::TopologyClient>(m_topology);
    const boost::shared_ptr<AgentMsgHandler> m_handler = boost::make_shared<AgentMsgHandler>(
        HandlerCollaborators{m_routes, m_registry, m_dispatcher, m_client, m_info, m_endpoint},
        ConfigurationKeepers{m_topology, m_subscriptions, m_log},
        ConfigurationEvents{[](const std::string&) {}, [] {}});
};

} // namespace VtxQel::Fuzz

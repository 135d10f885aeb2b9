#pragma once

#include "Require.h"
#include "appinit/AppInitConfigMsg.pb.h"
#include "common/MessageTypes.h"
#include "common/QelException.h"
#include "fakes/FakeAppDispatcher.h"
#include "fakes/FakeAppRegistry.h"
#include "fakes/FakeEndpoint.h"
#include "fakes/FakeMsgHandler.h"
#include "fakes/FakeRmqClient.h"
#include "fakes/FakeRmqMessage.h"
#include "fakes/FakeRoutingRegistry.h"
#include "handler/QelMsgHandler.h"

#include <boost/make_shared.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel::Fuzz
{

/** The configuration in the body; nothing when there is none. */
inline std::optional<brelix::vtx::messaging::appinit::AppInitConfigMsg> ConfigIn(const std::string& body)
{
    brelix::vtx::messaging::appinit::AppInitConfigMsg config;
    return config.ParseFromString(body) ? std::optional(config) : std::nullopt;
}

/** A broker client that fails at one request. Unbinding is never refused: that ends the process, by design. */
class FailingClient : public Fakes::FakeRmqClient
{
  public:
    using FakeRmqClient::FakeRmqClient;

    bool CancelQueue(const std::string&) override { return Ask(); }
    bool DeclareQueue(const std::string&) override { return Ask(); }
    bool BindTopic(const std::string&, const std::string&, const std::string&) override { return Ask(); }
    bool UnbindTopic(const std::string&, const std::string&, const std::string&) override { return Ask() || true; }

    /** At which of the next requests it fails, counted from 1; 0 is never. */
    std::uint32_t failAt = 0;
    bool throws = false;
    bool failed = false;

  private:
    bool Ask()
    {
        if (failAt == 0 || --failAt != 0)
        {
            return true;
        }
        failed = true;
        return throws ? throw RmqConnectionException("the broker is gone") : false;
    }
};

/** The handler with two applications, among fakes. */
class HandlerAmongFakes
{
  public:
    HandlerAmongFakes()
    {
        m_info->exchange = "exchange";
        m_info->clientQueue = "client";
        m_info->priorityQueue = "urgent";
        for (const std::string& queue : {m_info->clientQueue, m_info->priorityQueue})
        {
            m_routes->RoutingRegistry::Add(
                queue, boost::make_shared<RoutingRegistryEntry>(
                           boost::make_shared<Fakes::FakeMsgHandler>(), 0, channelPriorityNormal));
        }
    }

    /** Gives the handler a configuration for the application; `failure` says which request fails and how. */
    void Configure(const std::string& application, std::uint32_t failure, const std::string& body)
    {
        m_client->failAt = failure >> 1U;
        m_client->throws = (failure & 1U) != 0;
        m_client->failed = false;
        const std::vector<std::string> before = m_applications[application == "one" ? 0 : 1]->topics;
        const auto message =
            boost::make_shared<Fakes::FakeRmqMessage>(m_notes, std::string(APP_INIT_CONFIG_TYPE), body);
        message->appName = application;
        m_notes.Clear();
        Check(application, before, body, Handle(message));
    }

    void Finish() const {}

  private:
    /** Whether the handler took it; an exception of those that it documents counts as a no. */
    bool Handle(const boost::shared_ptr<RmqMessage>& message)
    {
        try
        {
            return m_handler.Callback(message);
        }
        catch (const RmqException&)
        {
            return false;
        }
    }

    void Check(
        const std::string& application, const std::vector<std::string>& before, const std::string& body, bool taken)
    {
        const std::vector<std::string>& after = m_applications[application == "one" ? 0 : 1]->topics;
        const auto config = ConfigIn(body);
        if (!config)
        {
            Require(!taken && after == before, "what is no configuration changes nothing");
            return;
        }
        Require(m_notes.NotesOf({"dispatcher."}).empty() != taken, "what was carried out is passed on, nothing else");
        if (!taken)
        {
            Require(m_client->failed || NamesReserved(*config), "what the broker does is done");
            Require(after.empty(), "after a failure nothing is recorded");
            return;
        }
        std::vector<std::string> wanted;
        for (const auto& topic : config->topic_info())
        {
            wanted.push_back(topic.topic());
        }
        wanted.insert(wanted.end(), config->queue_name().begin(), config->queue_name().end());
        Require(after == wanted, "every topic and queue is recorded, in order");
        for (const std::string& key : wanted)
        {
            Require(m_routes->Stored(key) != nullptr, "every topic and queue has a route");
        }
    }

    /** Whether it, or one before it, takes the routes of the agent's own queues away, as no honest one does. */
    bool NamesReserved(const brelix::vtx::messaging::appinit::AppInitConfigMsg&) const
    {
        return m_routes->Stored("client") == nullptr || m_routes->Stored("urgent") == nullptr;
    }

    Fakes::Journal m_notes;
    boost::shared_ptr<Fakes::FakeRoutingRegistry> m_routes = boost::make_shared<Fakes::FakeRoutingRegistry>(m_notes);
    boost::shared_ptr<Fakes::FakeAppRegistry> m_registry = boost::make_shared<Fakes::FakeAppRegistry>(m_notes);
    std::vector<boost::shared_ptr<Fakes::FakeAppRegistryEntry>> m_applications{
        m_registry->AddApp("one"), m_registry->AddApp("two")};
    boost::shared_ptr<Fakes::FakeAppDispatcher> m_dispatcher = boost::make_shared<Fakes::FakeAppDispatcher>(m_notes);
    boost::shared_ptr<FailingClient> m_client = boost::make_shared<FailingClient>(m_notes);
    boost::shared_ptr<RmqInfo> m_info = boost::make_shared<RmqInfo>();
    boost::shared_ptr<Fakes::FakeFE> m_frontEnd = boost::make_shared<Fakes::FakeFE>(m_notes);
    boost::shared_ptr<Fakes::FakeEndpointController> m_endpoint =
        boost::make_shared<Fakes::FakeEndpointController>(m_notes, m_frontEnd);
    QelMsgHandler m_handler{m_routes, m_registry, m_dispatcher, m_client, m_info, m_endpoint};
};

} // namespace VtxQel::Fuzz

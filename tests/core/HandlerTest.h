#pragma once

#include "core/ScriptedHandler.h"
#include "fakes/FakeAppDispatcher.h"
#include "fakes/FakeAppRegistry.h"
#include "fakes/FakeEndpoint.h"
#include "fakes/FakeMsgHandler.h"
#include "fakes/FakeRmqClient.h"
#include "fakes/FakeRmqMessage.h"
#include "fakes/FakeRoutingRegistry.h"
#include "fakes/LogCapture.h"

#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

namespace VtxQel
{

constexpr const char* pingType = "com.brelix.vtx.messaging.ping.PingRequest";
constexpr const char* hintType = "com.brelix.vtx.messaging.discovery.ReassignHint";
constexpr const char* configurationType = "com.brelix.vtx.messaging.appinit.AppInitConfigMsg";

/**
 * A handler among fakes: one application "app", the queues "normal" and "high" with a handler each, the exchange "ex".
 */
class HandlerTest : public testing::Test
{
  protected:
    HandlerTest()
    {
        rmqInfo->exchange = "ex";
        rmqInfo->clientQueue = "normal";
        rmqInfo->priorityQueue = "high";
        routingRegistry->RoutingRegistry::Add(
            "normal", boost::make_shared<RoutingRegistryEntry>(normalHandler, 0, channelPriorityNormal));
        routingRegistry->RoutingRegistry::Add(
            "high", boost::make_shared<RoutingRegistryEntry>(highHandler, 0, channelPriorityHigh));
    }

    boost::shared_ptr<Fakes::FakeRmqMessage> Message(const std::string& type, const std::string& body = "")
    {
        return boost::make_shared<Fakes::FakeRmqMessage>(journal, type, body);
    }

    /** Puts a route of the application in place as registration would have left it. */
    void HaveRoute(const std::string& key, int routeType, int priority)
    {
        app->topics.push_back(key);
        routingRegistry->RoutingRegistry::Add(
            key, boost::make_shared<RoutingRegistryEntry>(
                     normalHandler, routeType, static_cast<channelPriority_e>(priority)));
    }

    bool Clean(const std::string& appName = "app")
    {
        return handler.CleanTopicFromApp(appName, appRegistry, routingRegistry, rmqClient, "normal", "high", "ex");
    }

    void Register(const AppInitConfigMsg& config, const std::string& appName = "app")
    {
        handler.RegisterTopicOrQueue(appName, config, appRegistry, routingRegistry, rmqClient, "normal", "high", "ex");
    }

    /** What the operation threw, as text; "nothing" when it threw nothing. */
    template <class Exception, class Operation>
    static std::string Thrown(Operation operation)
    {
        try
        {
            operation();
        }
        catch (const Exception& error)
        {
            EXPECT_EQ(typeid(error), typeid(Exception));
            return error.what();
        }
        return "nothing";
    }

    Fakes::Journal journal;
    boost::shared_ptr<Fakes::FakeMsgHandler> normalHandler = boost::make_shared<Fakes::FakeMsgHandler>();
    boost::shared_ptr<Fakes::FakeMsgHandler> highHandler = boost::make_shared<Fakes::FakeMsgHandler>();
    boost::shared_ptr<Fakes::FakeRoutingRegistry> routingRegistry =
        boost::make_shared<Fakes::FakeRoutingRegistry>(journal);
    boost::shared_ptr<Fakes::FakeAppRegistry> appRegistry = boost::make_shared<Fakes::FakeAppRegistry>(journal);
    boost::shared_ptr<Fakes::FakeAppRegistryEntry> app = appRegistry->AddApp("app");
    boost::shared_ptr<Fakes::FakeAppDispatcher> appDispatcher = boost::make_shared<Fakes::FakeAppDispatcher>(journal);
    boost::shared_ptr<Fakes::FakeRmqClient> rmqClient = boost::make_shared<Fakes::FakeRmqClient>(journal);
    boost::shared_ptr<RmqInfo> rmqInfo = boost::make_shared<RmqInfo>();
    boost::shared_ptr<Fakes::FakeFE> fe = boost::make_shared<Fakes::FakeFE>(journal);
    boost::shared_ptr<Fakes::FakeEndpointController> endpointController =
        boost::make_shared<Fakes::FakeEndpointController>(journal, fe);
    ScriptedHandler handler{journal,   routingRegistry, appRegistry,       appDispatcher,
                            rmqClient, rmqInfo,         endpointController};
};

} // namespace VtxQel

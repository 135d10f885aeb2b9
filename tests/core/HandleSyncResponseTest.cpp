#include "common/QelException.h"
#include "core/HandlerTest.h"

#include <stdexcept>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

class HandleSyncResponse : public HandlerTest
{
  protected:
    boost::shared_ptr<Fakes::FakeRmqMessage> Configuration(const Strings& topics, const Strings& queues = {})
    {
        AppInitConfigMsg config;
        for (const std::string& topic : topics)
        {
            config.add_topic_info()->set_topic(topic);
        }
        for (const std::string& queue : queues)
        {
            config.add_queue_name(queue);
        }
        return Message(configurationType, config.SerializeAsString());
    }

    std::string ScopeExceptionOf(const boost::shared_ptr<RmqMessage>& message)
    {
        return Thrown<QelScopeException>([&] { handler.HandleSyncResponse(message); });
    }
};

TEST_F(HandleSyncResponse, CollaboratorsAreLockedInAFixedOrderBeforeTheMessageIsLookedAt)
{
    appRegistry.reset();
    EXPECT_EQ(ScopeExceptionOf(Configuration({})), typeid(AppRegistry).name());
    routingRegistry.reset();
    EXPECT_EQ(ScopeExceptionOf(Configuration({})), typeid(RoutingRegistry).name());
    rmqClient.reset();
    EXPECT_EQ(ScopeExceptionOf(Configuration({})), typeid(RmqClient).name());
    rmqInfo.reset();
    EXPECT_EQ(ScopeExceptionOf(Configuration({})), typeid(RmqInfo).name());
    EXPECT_EQ(journal.NotesOf({"message.", "handler.Parse"}), Strings());
}

TEST_F(HandleSyncResponse, AnExpiredCollaboratorIsReportedBeforeAMissingMessage)
{
    appRegistry.reset();
    EXPECT_EQ(
        Thrown<QelScopeException>([&] { handler.QelMsgHandler::HandleSyncResponse(nullptr); }),
        typeid(AppRegistry).name());
}

TEST_F(HandleSyncResponse, AMissingMessageIsAMessageException)
{
    EXPECT_EQ(
        Thrown<RmqMessageException>([&] { handler.QelMsgHandler::HandleSyncResponse(nullptr); }), "null rmq message");
    EXPECT_EQ(journal.Notes(), Strings());
}

TEST_F(HandleSyncResponse, DispatcherAndControllerAreNotNeeded)
{
    appDispatcher.reset();
    endpointController.reset();
    EXPECT_TRUE(handler.HandleSyncResponse(Configuration({"t"})));
}

TEST_F(HandleSyncResponse, ParseThenCleanThenRegisterThroughTheVirtualTable)
{
    const LogCapture log(4);
    AppInitConfigMsg registered;
    handler.onRegister = [&registered](const AppInitConfigMsg& config) { registered = config; };
    const auto message = Configuration({"t"}, {"q"});
    EXPECT_TRUE(handler.HandleSyncResponse(message));
    EXPECT_EQ(
        journal.NotesOf({"handler.", "message.GetAppName"}),
        Strings(
            {"handler.HandleSyncResponse()", "message.GetAppName()", "handler.ParseAppInitConfig()",
             "handler.CleanTopicFromApp(app, normal, high, ex)",
             "handler.RegisterTopicOrQueue(app, normal, high, ex)"}));
    EXPECT_EQ(registered.topic_info(0).topic(), "t");
    EXPECT_EQ(registered.queue_name(0), "q");
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(HandleSyncResponse, TheConfigurationHandedToTheParserIsEmpty)
{
    bool empty = false;
    handler.onParse = [&empty](AppInitConfigMsg& config)
    {
        empty = config.topic_info_size() == 0 && config.queue_name_size() == 0;
        return 0;
    };
    EXPECT_TRUE(handler.HandleSyncResponse(Configuration({"t"})));
    EXPECT_TRUE(empty);
}

// Caller, the override under test, the real operation, the parser.
TEST_F(HandleSyncResponse, TheMessageIsPassedToTheParserAsANewReference)
{
    const auto message = Configuration({});
    handler.QelMsgHandler::HandleSyncResponse(message);
    EXPECT_EQ(handler.lastUseCount, 3);
}

TEST_F(HandleSyncResponse, NamesAreCopiedBeforeTheMessageIsParsed)
{
    const auto message = Configuration({});
    handler.onParse = [&](AppInitConfigMsg&)
    {
        message->appName = "other";
        rmqInfo->clientQueue = rmqInfo->priorityQueue = rmqInfo->exchange = "changed";
        return 0;
    };
    EXPECT_TRUE(handler.HandleSyncResponse(message));
    EXPECT_EQ(
        journal.NotesOf({"handler.C", "handler.Reg"}), Strings(
                                                           {"handler.CleanTopicFromApp(app, normal, high, ex)",
                                                            "handler.RegisterTopicOrQueue(app, normal, high, ex)"}));
}

TEST_F(HandleSyncResponse, ABodyThatDoesNotParseLeavesTheOldTopicsBound)
{
    const LogCapture log(2);
    HaveRoute("old", 2, 0);
    EXPECT_FALSE(handler.HandleSyncResponse(Message(configurationType, "garbage")));
    EXPECT_EQ(
        log.Lines(), Strings(
                         {"2 qel errorCode:QEL1021 Unable to parse AppInitConfig from body",
                          "2 qel errorCode:QEL15 Bad parse for AppInit msg"}));
    EXPECT_EQ(journal.NotesOf({"broker.", "registry.", "entry.", "handler.C"}), Strings());
    EXPECT_EQ(app->topics, Strings({"old"}));
}

TEST_F(HandleSyncResponse, EveryParseResultButZeroIsAFailure)
{
    const LogCapture log(2);
    for (const int result : {1, -1, -1021})
    {
        handler.onParse = [result](AppInitConfigMsg&) { return result; };
        EXPECT_FALSE(handler.HandleSyncResponse(Configuration({"t"})));
    }
    EXPECT_EQ(log.Lines(), Strings(3, "2 qel errorCode:QEL15 Bad parse for AppInit msg"));
    EXPECT_EQ(journal.NotesOf({"handler.C", "handler.Reg"}), Strings());
}

TEST_F(HandleSyncResponse, AnUnknownApplicationIsRejectedAndNothingDeclared)
{
    const LogCapture log(2);
    const auto message = Configuration({"t"}, {"q"});
    message->appName = "stranger";
    EXPECT_FALSE(handler.Callback(message));
    EXPECT_EQ(
        log.Lines(), Strings(
                         {"2 qel errorCode:QEL106 Non register app stranger",
                          "2 qel errorCode:QEL15 unable to unbind topics in AppInitConfig from app (stranger)"}));
    EXPECT_EQ(journal.NotesOf({"broker.", "handler.Reg", "dispatcher."}), Strings());
}

TEST_F(HandleSyncResponse, ItsErrorLinesAreSilentBelowLevelTwo)
{
    const LogCapture log(1);
    EXPECT_FALSE(handler.HandleSyncResponse(Message(configurationType, "garbage")));
    handler.onClean = [] { return false; };
    EXPECT_FALSE(handler.HandleSyncResponse(Configuration({})));
    int calls = 0;
    handler.onClean = [&calls] { return ++calls == 1; };
    handler.onRegister = [](const AppInitConfigMsg&) { throw RmqException("no"); };
    EXPECT_THROW(handler.HandleSyncResponse(Configuration({})), RmqException);
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(HandleSyncResponse, AConfigurationReplacesTheOneBefore)
{
    EXPECT_TRUE(handler.Callback(Configuration({"a", "b"}, {"q"})));
    journal.Clear();
    EXPECT_TRUE(handler.Callback(Configuration({"b", "c"})));
    EXPECT_EQ(
        journal.NotesOf({"broker.", "dispatcher."}),
        Strings(
            {"broker.UnbindTopic(normal, ex, a)", "broker.UnbindTopic(normal, ex, b)", "broker.CancelQueue(q)",
             "broker.BindTopic(normal, ex, b)", "broker.BindTopic(normal, ex, c)", "dispatcher.Dispatch()"}));
    EXPECT_EQ(app->topics, Strings({"b", "c"}));
    EXPECT_FALSE(routingRegistry->Stored("a"));
    EXPECT_TRUE(routingRegistry->Stored("c"));
}

TEST_F(HandleSyncResponse, AFailedBindTakesTheEarlierTopicsOffAgainAndReachesCallback)
{
    const LogCapture log(2);
    rmqClient->answers.Refuse("broker.BindTopic(normal, ex, t3)");
    EXPECT_FALSE(handler.Callback(Configuration({"t1", "t2", "t3", "t4"})));
    EXPECT_EQ(
        journal.NotesOf({"broker.", "dispatcher."}),
        Strings(
            {"broker.BindTopic(normal, ex, t1)", "broker.BindTopic(normal, ex, t2)", "broker.BindTopic(normal, ex, t3)",
             "broker.UnbindTopic(normal, ex, t1)", "broker.UnbindTopic(normal, ex, t2)"}));
    EXPECT_EQ(app->topics, Strings());
    EXPECT_FALSE(routingRegistry->Stored("t1"));
    EXPECT_EQ(
        log.Lines(),
        Strings({"2 qel errorCode:QEL106 Bad RmqMessage. Bind fail on app: app for topic: t3 to queue normal"}));
}

TEST_F(HandleSyncResponse, TheCleanUpGetsTheArgumentsOfTheFirst)
{
    handler.onRegister = [](const AppInitConfigMsg&) { throw RmqException("no"); };
    EXPECT_EQ(Thrown<RmqException>([&] { handler.HandleSyncResponse(Configuration({})); }), "no");
    EXPECT_EQ(
        journal.NotesOf({"handler.C", "handler.Reg"}),
        Strings(
            {"handler.CleanTopicFromApp(app, normal, high, ex)", "handler.RegisterTopicOrQueue(app, normal, high, ex)",
             "handler.CleanTopicFromApp(app, normal, high, ex)"}));
}

TEST_F(HandleSyncResponse, ACleanUpThatFailsIsLoggedAndTheExceptionRethrown)
{
    const LogCapture log(2);
    int calls = 0;
    handler.onClean = [&calls] { return ++calls == 1; };
    handler.onRegister = [](const AppInitConfigMsg&) { throw RmqMessageException("no"); };
    EXPECT_EQ(Thrown<RmqMessageException>([&] { handler.HandleSyncResponse(Configuration({})); }), "no");
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL15 unable to unbind topics for app during cleanup (app)"}));
}

TEST_F(HandleSyncResponse, ACleanUpThatSucceedsIsNotLogged)
{
    const LogCapture log(4);
    handler.onRegister = [](const AppInitConfigMsg&) { throw RmqMessageException("no"); };
    EXPECT_THROW(handler.HandleSyncResponse(Configuration({})), RmqMessageException);
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(HandleSyncResponse, TheVeryObjectCaughtIsRethrown)
{
    const void* thrown = nullptr;
    handler.onClean = [] { return true; };
    handler.onRegister = [&thrown](const AppInitConfigMsg&)
    {
        try
        {
            throw std::runtime_error("the one");
        }
        catch (const std::runtime_error& error)
        {
            thrown = &error;
            throw;
        }
    };
    try
    {
        handler.HandleSyncResponse(Configuration({}));
        FAIL() << "nothing was thrown";
    }
    catch (const std::runtime_error& error)
    {
        EXPECT_EQ(&error, thrown);
    }
}

TEST_F(HandleSyncResponse, EveryTypeOfExceptionIsCleanedUpAfter)
{
    handler.onRegister = [](const AppInitConfigMsg&) { throw 42; };
    EXPECT_THROW(handler.HandleSyncResponse(Configuration({})), int);
    EXPECT_EQ(journal.NotesOf({"handler.C"}).size(), 2U);
}

TEST_F(HandleSyncResponse, ACleanUpThatThrowsReplacesTheException)
{
    int calls = 0;
    handler.onClean = [&calls]() -> bool
    {
        if (++calls == 1)
        {
            return true;
        }
        throw std::runtime_error("clean-up");
    };
    handler.onRegister = [](const AppInitConfigMsg&) { throw RmqMessageException("registration"); };
    EXPECT_EQ(Thrown<std::runtime_error>([&] { handler.HandleSyncResponse(Configuration({})); }), "clean-up");
}

TEST_F(HandleSyncResponse, ExceptionsBeforeTheRegistrationAreNotCleanedUpAfter)
{
    const auto message = Configuration({});
    handler.onParse = [](AppInitConfigMsg&) -> int { throw std::runtime_error("parse"); };
    EXPECT_EQ(Thrown<std::runtime_error>([&] { handler.HandleSyncResponse(message); }), "parse");
    EXPECT_EQ(journal.NotesOf({"handler.C"}).size(), 0U);
    handler.onParse = nullptr;
    handler.onClean = []() -> bool { throw std::runtime_error("clean"); };
    EXPECT_EQ(Thrown<std::runtime_error>([&] { handler.HandleSyncResponse(message); }), "clean");
    EXPECT_EQ(journal.NotesOf({"handler.C"}).size(), 1U);
    message->answers.Throw("message.GetAppName()", std::runtime_error("name"));
    EXPECT_EQ(Thrown<std::runtime_error>([&] { handler.HandleSyncResponse(message); }), "name");
}

TEST_F(HandleSyncResponse, TheCollaboratorsAreKeptAliveToTheEnd)
{
    const boost::weak_ptr<RmqClient> client = rmqClient;
    const boost::weak_ptr<AppRegistry> apps = appRegistry;
    const boost::weak_ptr<RoutingRegistry> routes = routingRegistry;
    const boost::weak_ptr<RmqInfo> info = rmqInfo;
    bool alive = false;
    handler.onParse = [&](AppInitConfigMsg&)
    {
        rmqClient.reset();
        appRegistry.reset();
        routingRegistry.reset();
        rmqInfo.reset();
        return 0;
    };
    handler.onRegister = [&](const AppInitConfigMsg&)
    { alive = !client.expired() && !apps.expired() && !routes.expired() && !info.expired(); };
    EXPECT_TRUE(handler.HandleSyncResponse(Configuration({})));
    EXPECT_TRUE(alive);
    EXPECT_TRUE(client.expired() && apps.expired() && routes.expired() && info.expired());
}

} // namespace
} // namespace VtxQel

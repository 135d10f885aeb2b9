#include "common/QelException.h"
#include "core/HandlerTest.h"

#include <atomic>
#include <stdexcept>
#include <thread>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

class Callback : public HandlerTest
{
};

TEST_F(Callback, AnEmptyMessageYieldsFalseAndOneErrorLine)
{
    const LogCapture log(7);
    EXPECT_FALSE(handler.Callback(nullptr));
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL106 null rmq message in qel message handler"}));
    EXPECT_EQ(journal.Notes(), Strings());
}

TEST_F(Callback, AnEmptyMessageIsSilentBelowLevelTwo)
{
    const LogCapture log(1);
    EXPECT_FALSE(handler.Callback(nullptr));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(Callback, AnEmptyMessageDoesNotNeedTheDispatcher)
{
    const LogCapture log(2);
    appDispatcher.reset();
    EXPECT_FALSE(handler.Callback(nullptr));
    EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(Callback, TheReceiptLineNamesApplicationAndTypeAndEndsInANewline)
{
    const LogCapture log(5);
    handler.Callback(Message("some.type"));
    EXPECT_EQ(log.Lines(), Strings({"5 qel - Msg Received in client queue for app. message type: some.type\n"}));
}

TEST_F(Callback, AtLevelFourThereIsNoReceiptLineAndItsArgumentsAreNotEvaluated)
{
    const LogCapture log(4);
    handler.Callback(Message("some.type"));
    EXPECT_EQ(log.Lines(), Strings());
    EXPECT_EQ(journal.Notes(), Strings({"message.GetProperties()", "dispatcher.Dispatch()"}));
}

TEST_F(Callback, AtLevelFiveTheDefaultDispatchIsNotLoggedAndTheMessageNotPrinted)
{
    const LogCapture log(5);
    handler.Callback(Message("some.type"));
    EXPECT_EQ(journal.Notes(), Strings({"message.GetProperties()", "message.GetAppName()", "dispatcher.Dispatch()"}));
}

TEST_F(Callback, AtLevelSixTheDefaultDispatchIsLoggedBeforeItHappens)
{
    const LogCapture log(6, &journal);
    EXPECT_TRUE(handler.Callback(Message("some.type")));
    EXPECT_EQ(
        journal.Notes(),
        Strings(
            {"message.GetProperties()", "message.GetAppName()",
             "log: 5 qel - Msg Received in client queue for app. message type: some.type\n", "message.ToString()",
             "log: 6 qel - Default dispatch for incoming rmq message a message", "dispatcher.Dispatch()"}));
}

TEST_F(Callback, ThePropertiesAreReleasedBeforeAnythingElse)
{
    const LogCapture log(5);
    const auto message = Message("some.type");
    bool released = false;
    message->answers.On(
        "message.GetAppName()",
        [&]
        {
            released = message->lastProperties.expired();
            return true;
        });
    handler.Callback(message);
    EXPECT_TRUE(released);
}

TEST_F(Callback, TheResultOfADefaultDispatchIsReturned)
{
    EXPECT_TRUE(handler.Callback(Message("some.type")));
    appDispatcher->answers.Refuse("dispatcher.Dispatch()");
    EXPECT_FALSE(handler.Callback(Message("some.type")));
}

TEST_F(Callback, AnEmptyTypeIsDispatchedByDefault)
{
    const LogCapture log(6);
    EXPECT_TRUE(handler.Callback(Message("")));
    EXPECT_EQ(journal.NotesOf({"handler.", "dispatcher."}), Strings({"dispatcher.Dispatch()"}));
    EXPECT_EQ(log.Lines().back(), "6 qel - Default dispatch for incoming rmq message a message");
}

TEST_F(Callback, TypesAreComparedExactly)
{
    const LogCapture log(6);
    for (const std::string type : {pingType, hintType, configurationType})
    {
        for (const std::string& other :
             {type + " ", " " + type, type + std::string(1, '\0'), type.substr(0, type.size() - 1),
              "C" + type.substr(1)})
        {
            journal.Clear();
            EXPECT_TRUE(handler.Callback(Message(other)));
            EXPECT_EQ(journal.NotesOf({"handler.", "dispatcher."}), Strings({"dispatcher.Dispatch()"})) << other;
            EXPECT_EQ(log.Lines().back(), "6 qel - Default dispatch for incoming rmq message a message");
        }
    }
}

TEST_F(Callback, APingGoesToItsOperationWhoseResultIsReturned)
{
    for (const bool result : {true, false})
    {
        journal.Clear();
        handler.onPing = [result] { return result; };
        EXPECT_EQ(handler.Callback(Message(pingType)), result);
        EXPECT_EQ(journal.NotesOf({"handler.", "dispatcher."}), Strings({"handler.PingFromMPCallback()"}));
    }
}

TEST_F(Callback, AHintGoesToItsOperationWhoseResultIsReturned)
{
    for (const bool result : {true, false})
    {
        journal.Clear();
        handler.onHint = [result] { return result; };
        EXPECT_EQ(handler.Callback(Message(hintType)), result);
        EXPECT_EQ(journal.NotesOf({"handler.", "dispatcher."}), Strings({"handler.ReassignHintCallback()"}));
    }
}

TEST_F(Callback, AConfigurationThatFailedIsNotDispatched)
{
    handler.onSyncResponse = [] { return false; };
    EXPECT_FALSE(handler.Callback(Message(configurationType)));
    EXPECT_EQ(journal.NotesOf({"handler.", "dispatcher."}), Strings({"handler.HandleSyncResponse()"}));
}

TEST_F(Callback, AConfigurationThatSucceededIsDispatchedAndThatResultReturned)
{
    const LogCapture log(6);
    handler.onSyncResponse = [] { return true; };
    EXPECT_TRUE(handler.Callback(Message(configurationType)));
    appDispatcher->answers.Refuse("dispatcher.Dispatch()");
    EXPECT_FALSE(handler.Callback(Message(configurationType)));
    EXPECT_EQ(
        journal.NotesOf({"handler.", "dispatcher."}), Strings(
                                                          {"handler.HandleSyncResponse()", "dispatcher.Dispatch()",
                                                           "handler.HandleSyncResponse()", "dispatcher.Dispatch()"}));
    EXPECT_EQ(log.Lines().size(), 2U) << "only the two receipts";
}

TEST_F(Callback, TheSameMessageIsDispatched)
{
    const auto message = Message("some.type");
    handler.Callback(message);
    EXPECT_EQ(appDispatcher->lastMessage.lock(), message);
}

// One reference is the caller's, one Callback's, one that of the operation called.
TEST_F(Callback, TheMessageIsPassedOnAsANewReference)
{
    const auto pass = [this](const char* type)
    {
        const auto message = Message(type);
        handler.Callback(message);
    };
    handler.onPing = handler.onHint = handler.onSyncResponse = [] { return true; };
    for (const char* type : {pingType, hintType, configurationType})
    {
        handler.lastUseCount = 0;
        pass(type);
        EXPECT_EQ(handler.lastUseCount, 3) << type;
    }
    EXPECT_EQ(appDispatcher->lastUseCount, 3);
    appDispatcher->lastUseCount = 0;
    pass("some.type");
    EXPECT_EQ(appDispatcher->lastUseCount, 3);
}

TEST_F(Callback, TheDispatcherIsKeptAliveDuringTheOperation)
{
    bool alive = false;
    const boost::weak_ptr<AppDispatcher> dispatcher = appDispatcher;
    handler.onSyncResponse = [&]
    {
        appDispatcher.reset();
        alive = !dispatcher.expired();
        return true;
    };
    EXPECT_TRUE(handler.Callback(Message(configurationType)));
    EXPECT_TRUE(alive);
    EXPECT_TRUE(dispatcher.expired()) << "released when Callback returned";
}

TEST_F(Callback, WithoutADispatcherEveryTypeIsRefusedBeforeItsOperation)
{
    const LogCapture log(7);
    appDispatcher.reset();
    for (const char* type : {pingType, hintType, configurationType, "some.type"})
    {
        journal.Clear();
        EXPECT_EQ(Thrown<QelScopeException>([&] { handler.Callback(Message(type)); }), typeid(AppDispatcher).name());
        EXPECT_EQ(journal.NotesOf({"handler.", "broker.", "controller."}), Strings());
    }
    EXPECT_EQ(log.Lines().size(), 4U) << "the receipts alone";
}

TEST_F(Callback, NoOtherCollaboratorIsNeededForADefaultDispatch)
{
    routingRegistry.reset();
    appRegistry.reset();
    rmqClient.reset();
    rmqInfo.reset();
    endpointController.reset();
    EXPECT_TRUE(handler.Callback(Message("some.type")));
}

TEST_F(Callback, AMessageExceptionOfTheDispatcherYieldsFalseAndALine)
{
    const LogCapture log(2);
    appDispatcher->answers.Throw("dispatcher.Dispatch()", RmqMessageException("no such thing"));
    EXPECT_FALSE(handler.Callback(Message("some.type")));
    EXPECT_EQ(log.Lines(), Strings({"2 qel errorCode:QEL106 Bad RmqMessage. no such thing"}));
}

TEST_F(Callback, AMessageExceptionIsSilentBelowLevelTwo)
{
    const LogCapture log(1);
    appDispatcher->answers.Throw("dispatcher.Dispatch()", RmqMessageException("no such thing"));
    EXPECT_FALSE(handler.Callback(Message("some.type")));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(Callback, AMessageExceptionOfTheMessageItselfIsCaught)
{
    const LogCapture log(5);
    const auto message = Message("some.type");
    message->answers.Throw("message.GetProperties()", RmqMessageException("no properties"));
    EXPECT_FALSE(handler.Callback(message));
    message->answers.On("message.GetProperties()", [] { return true; });
    message->answers.Throw("message.GetAppName()", RmqMessageException("no name"));
    EXPECT_FALSE(handler.Callback(message));
    EXPECT_EQ(
        log.Lines(), Strings(
                         {"2 qel errorCode:QEL106 Bad RmqMessage. no properties",
                          "2 qel errorCode:QEL106 Bad RmqMessage. no name"}));
}

TEST_F(Callback, AMessageExceptionOfACalledOperationIsCaught)
{
    const LogCapture log(2);
    handler.onPing = handler.onHint = handler.onSyncResponse = []() -> bool { throw RmqMessageException("inside"); };
    for (const char* type : {pingType, hintType, configurationType})
    {
        EXPECT_FALSE(handler.Callback(Message(type)));
    }
    EXPECT_EQ(log.Lines(), Strings(3, "2 qel errorCode:QEL106 Bad RmqMessage. inside"));
}

TEST_F(Callback, EveryOtherExceptionPassesThroughUnloggedAndUnchanged)
{
    const LogCapture log(4);
    const auto dispatch = [this] { handler.Callback(Message("some.type")); };
    appDispatcher->answers.Throw("dispatcher.Dispatch()", RmqConnectionException("connection"));
    EXPECT_EQ(Thrown<RmqConnectionException>(dispatch), "connection");
    appDispatcher->answers.Throw("dispatcher.Dispatch()", RmqException("plain"));
    EXPECT_EQ(Thrown<RmqException>(dispatch), "plain");
    appDispatcher->answers.Throw("dispatcher.Dispatch()", QelScopeException("scope"));
    EXPECT_EQ(Thrown<QelScopeException>(dispatch), "scope");
    appDispatcher->answers.Throw("dispatcher.Dispatch()", std::runtime_error("standard"));
    EXPECT_EQ(Thrown<std::runtime_error>(dispatch), "standard");
    appDispatcher->answers.Throw("dispatcher.Dispatch()", 42);
    EXPECT_THROW(dispatch(), int);
    EXPECT_EQ(log.Lines(), Strings());
}

TEST_F(Callback, AtLevelOneNothingIsWrittenAndAtLevelTwoOnlyErrors)
{
    const auto messages = [this]
    {
        handler.Callback(nullptr);
        handler.Callback(Message("some.type"));
        handler.Callback(Message(pingType));
        handler.Callback(Message(hintType));
        handler.Callback(Message(configurationType, "garbage"));
        AppInitConfigMsg config;
        config.add_topic_info()->set_topic("topic");
        config.add_queue_name("queue");
        handler.Callback(Message(configurationType, config.SerializeAsString()));
        handler.Callback(Message(configurationType, config.SerializeAsString()));
        routingRegistry->Remove("absent");
    };
    LogCapture log(1);
    messages();
    EXPECT_EQ(log.Lines(), Strings());
    vtx::Logger::logLevel = 2;
    messages();
    EXPECT_EQ(log.Lines().size(), 4U);
    for (const std::string& line : log.Lines())
    {
        EXPECT_EQ(line.rfind("2 qel errorCode:", 0), 0U) << line;
    }
}

TEST_F(Callback, ThreadsMayCallItAtOnce)
{
    std::atomic<int> dispatched{0};
    class Counting : public AppDispatcher
    {
      public:
        explicit Counting(std::atomic<int>& count) : m_count(count) {}
        bool Dispatch(boost::shared_ptr<RmqMessage> /*msg*/) override
        {
            ++m_count;
            return true;
        }

      private:
        std::atomic<int>& m_count;
    };
    const auto dispatcher = boost::make_shared<Counting>(dispatched);
    QelMsgHandler shared(routingRegistry, appRegistry, dispatcher, rmqClient, rmqInfo, endpointController);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&shared]
            {
                Fakes::Journal own;
                const auto message = boost::make_shared<Fakes::FakeRmqMessage>(own, "some.type");
                for (int call = 0; call < 500; ++call)
                {
                    EXPECT_TRUE(shared.Callback(message));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(dispatched, 2000);
}

} // namespace
} // namespace VtxQel

#include "common/QelException.h"
#include "core/HandlerTest.h"

namespace VtxQel
{
namespace
{

using Fakes::Strings;

class RegisterRouting : public HandlerTest
{
  protected:
    bool Topic(const std::string& appName, const std::string& queue, channelPriority_e priority)
    {
        return handler.RegisterRoutingTopic(appRegistry, routingRegistry, appName, "key", queue, priority);
    }
    bool Queue(const std::string& appName, const std::string& queue, channelPriority_e priority)
    {
        return handler.RegisterRoutingQueue(appRegistry, routingRegistry, appName, "key", queue, priority);
    }

    // Something in the registry that is no application.
    class Stranger : public RegistryEntry
    {
    };
};

TEST_F(RegisterRouting, ATopicSharesTheQueuesHandlerAndHasTheGivenPriority)
{
    EXPECT_TRUE(Topic("app", "high", channelPriorityHigh));
    const auto entry = routingRegistry->Stored("key");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->handler, highHandler);
    EXPECT_EQ(entry->routeType, 2);
    EXPECT_EQ(entry->priority, 1);
    EXPECT_TRUE(Topic("app", "normal", channelPriorityNormal));
    EXPECT_EQ(routingRegistry->Stored("key")->priority, 0);
}

TEST_F(RegisterRouting, AQueueHasPriorityZeroWhateverIsPassed)
{
    EXPECT_TRUE(Queue("app", "normal", channelPriorityHigh));
    const auto entry = routingRegistry->Stored("key");
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->handler, normalHandler);
    EXPECT_EQ(entry->routeType, 1);
    EXPECT_EQ(entry->priority, 0);
}

TEST_F(RegisterRouting, TheKeyIsRecordedBeforeTheQueueIsLookedUpAndAddedLast)
{
    const Strings steps = {
        "apps.Lookup(app)", "entry.AddTopic(app, key)", "registry.Find(normal)", "registry.Add(key)"};
    Topic("app", "normal", channelPriorityNormal);
    EXPECT_EQ(journal.NotesOf({"apps.", "entry.", "registry.", "broker."}), steps);
    journal.Clear();
    Queue("app", "normal", channelPriorityNormal);
    EXPECT_EQ(journal.NotesOf({"apps.", "entry.", "registry.", "broker."}), steps);
}

TEST_F(RegisterRouting, AnUnknownApplicationIsRefusedBeforeAnythingChanges)
{
    const std::string expected = "Unable to located app: stranger for app init";
    EXPECT_EQ(Thrown<RmqMessageException>([&] { Topic("stranger", "normal", channelPriorityNormal); }), expected);
    EXPECT_EQ(Thrown<RmqMessageException>([&] { Queue("stranger", "normal", channelPriorityNormal); }), expected);
    EXPECT_EQ(journal.NotesOf({"entry.", "registry."}), Strings());
}

TEST_F(RegisterRouting, AnEntryThatIsNoApplicationIsRefusedAlike)
{
    appRegistry->entries["stranger"] = boost::make_shared<Stranger>();
    EXPECT_EQ(
        Thrown<RmqMessageException>([&] { Topic("stranger", "normal", channelPriorityNormal); }),
        "Unable to located app: stranger for app init");
    EXPECT_EQ(journal.NotesOf({"entry.", "registry."}), Strings());
}

TEST_F(RegisterRouting, AClientQueueWithoutARouteIsRefusedWithTheKeyRecorded)
{
    const std::string expected = "Missing client queue handler for nowhere";
    EXPECT_EQ(Thrown<RmqException>([&] { Topic("app", "nowhere", channelPriorityNormal); }), expected);
    EXPECT_EQ(app->topics, Strings({"key"}));
    EXPECT_EQ(Thrown<RmqException>([&] { Queue("app", "nowhere", channelPriorityNormal); }), expected);
    EXPECT_EQ(app->topics, Strings({"key", "key"}));
    EXPECT_EQ(journal.NotesOf({"registry.Add"}), Strings());
}

TEST_F(RegisterRouting, AnEmptyHandlerIsCopiedAsItIs)
{
    routingRegistry->RoutingRegistry::Add(
        "bare", boost::make_shared<RoutingRegistryEntry>(nullptr, channelPriorityNormal));
    EXPECT_TRUE(Topic("app", "bare", channelPriorityNormal));
    EXPECT_FALSE(routingRegistry->Stored("key")->handler);
}

TEST_F(RegisterRouting, RegisteringAKeyTwiceRecordsAndAddsItTwice)
{
    Topic("app", "normal", channelPriorityNormal);
    const auto first = routingRegistry->Stored("key");
    Topic("app", "high", channelPriorityHigh);
    EXPECT_EQ(app->topics, Strings({"key", "key"}));
    EXPECT_NE(routingRegistry->Stored("key"), first);
    EXPECT_EQ(journal.NotesOf({"registry.Add"}).size(), 2U);
}

} // namespace
} // namespace VtxQel

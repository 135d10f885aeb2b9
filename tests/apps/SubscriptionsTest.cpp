#include "apps/Subscriptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace VtxQel
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class SubscriptionsTest : public testing::Test
{
  protected:
    SubscriptionsTest()
    {
        m_subscriptions.Observe(
            [this](const SubscriptionChange& change)
            {
                const std::vector<std::string> kinds{"topic ", "queue ", "state "};
                m_changes.push_back(kinds[static_cast<std::size_t>(change.kind)] + change.application + change.key);
            });
    }
    void Configure(const std::string& application, const std::vector<std::pair<std::string, std::string>>& topics)
    {
        m_subscriptions.BeginConfiguration(application);
        for (const auto& [topic, queue] : topics)
        {
            m_subscriptions.AddTopic(application, topic, queue);
        }
        m_subscriptions.Commit(application);
    }
    std::vector<std::string> At(const std::string& queue, const std::string& key) const
    {
        return m_subscriptions.Resolve(queue, key).applications;
    }

    Subscriptions m_subscriptions{"client", "urgent", true};
    std::vector<std::string> m_changes;
};

TEST_F(SubscriptionsTest, AnExactTopicIsItsSubscribers)
{
    Configure("one", {{"a.b", "client"}});
    Configure("two", {{"a.b", "client"}, {"a.c", "client"}});
    EXPECT_THAT(At("client", "a.b"), ElementsAre("one", "two"));
    EXPECT_THAT(At("client", "a.c"), ElementsAre("two"));
    EXPECT_THAT(At("client", "a.d"), IsEmpty());
    EXPECT_FALSE(m_subscriptions.Resolve("client", "a.d").servedElsewhere);
}

TEST_F(SubscriptionsTest, OverlappingPatternsGiveAnApplicationOneCopy)
{
    Configure("one", {{"a.*", "client"}, {"a.#", "client"}, {"a.b", "client"}});
    Configure("two", {{"#", "client"}});
    EXPECT_THAT(At("client", "a.b"), UnorderedElementsAre("one", "two"));
    EXPECT_THAT(At("client", "x"), ElementsAre("two"));
}

TEST_F(SubscriptionsTest, WithoutWildcardsAPatternIsATopicLikeAnyOther)
{
    Subscriptions direct("client", "urgent", false);
    direct.AddTopic("one", "a.*", "client");
    EXPECT_THAT(direct.Resolve("client", "a.b").applications, IsEmpty());
    EXPECT_THAT(direct.Resolve("client", "a.*").applications, ElementsAre("one"));
    EXPECT_FALSE(direct.IsPattern("a.*"));
}

TEST_F(SubscriptionsTest, ThePriorityCopyIsTheOnlyOne)
{
    Configure("one", {{"a.*", "urgent"}, {"a.b", "client"}});
    EXPECT_THAT(At("urgent", "a.b"), ElementsAre("one"));
    const Receivers normal = m_subscriptions.Resolve("client", "a.b");
    EXPECT_THAT(normal.applications, IsEmpty());
    EXPECT_TRUE(normal.servedElsewhere);
}

TEST_F(SubscriptionsTest, TheNormalCopyIsForThoseWithoutPriority)
{
    Configure("one", {{"a.b", "urgent"}});
    Configure("two", {{"a.b", "client"}});
    EXPECT_THAT(At("client", "a.b"), ElementsAre("two"));
    EXPECT_THAT(At("urgent", "a.b"), ElementsAre("one"));
}

TEST_F(SubscriptionsTest, AMessageThatWasRoutedBeforeItsTopicMovedIsNotLost)
{
    Configure("one", {{"a", "client"}});
    Configure("one", {{"a", "urgent"}});
    EXPECT_THAT(At("client", "a"), ElementsAre("one"));
}

TEST_F(SubscriptionsTest, APriorityTopicThatIsOnlyComingTakesNothingFromTheNormalQueue)
{
    Configure("one", {{"a", "client"}});
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.AddTopic("one", "a", "urgent");
    EXPECT_THAT(At("client", "a"), ElementsAre("one"));
    EXPECT_THAT(At("urgent", "a"), ElementsAre("one"));
}

TEST_F(SubscriptionsTest, TheLastRegistrationOfATopicWins)
{
    Configure("one", {{"a", "client"}, {"a", "urgent"}, {"b.*", "urgent"}, {"b.*", "client"}});
    Configure("two", {{"a", "client"}, {"b.c", "urgent"}});
    EXPECT_THAT(At("client", "a"), ElementsAre("two"));
    EXPECT_THAT(At("urgent", "a"), ElementsAre("one"));
    EXPECT_THAT(At("client", "b.c"), ElementsAre("one"));
    EXPECT_THAT(At("urgent", "b.c"), ElementsAre("two"));
}

TEST_F(SubscriptionsTest, AQueueIsItsOwners)
{
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.AddQueue("one", "q");
    m_subscriptions.AddQueue("one", "q");
    m_subscriptions.Commit("one");
    EXPECT_THAT(At("q", "whatever"), ElementsAre("one"));
    EXPECT_THAT(At("r", "whatever"), IsEmpty());
    Configure("one", {});
    EXPECT_THAT(At("q", "whatever"), IsEmpty());
}

TEST_F(SubscriptionsTest, OldAndNewCountWhileAConfigurationIsCarriedOut)
{
    Configure("one", {{"old", "client"}, {"kept", "client"}});
    EXPECT_FALSE(m_subscriptions.IsConfiguring());
    m_subscriptions.BeginConfiguration("one");
    EXPECT_TRUE(m_subscriptions.IsConfiguring());
    m_subscriptions.AddTopic("one", "kept", "client");
    m_subscriptions.AddTopic("one", "new", "client");
    for (const char* topic : {"old", "kept", "new"})
    {
        EXPECT_THAT(At("client", topic), ElementsAre("one")) << topic;
    }
    m_subscriptions.Commit("one");
    EXPECT_FALSE(m_subscriptions.IsConfiguring());
    EXPECT_THAT(At("client", "old"), IsEmpty());
    EXPECT_THAT(At("client", "kept"), ElementsAre("one"));
    EXPECT_THAT(At("client", "new"), ElementsAre("one"));
}

TEST_F(SubscriptionsTest, AnErrorIsKeptToALengthThatApplicationsTake)
{
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.Abort("one", std::string(1000000, 'e'));
    EXPECT_EQ(m_subscriptions.Status("one").error, std::string(1024, 'e'));
}

TEST_F(SubscriptionsTest, AbortLeavesNothingOfTheApplication)
{
    Configure("one", {{"old", "client"}});
    Configure("two", {{"old", "client"}});
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.AddTopic("one", "new", "client");
    m_subscriptions.AddQueue("one", "q");
    m_subscriptions.Abort("one", "refused");
    EXPECT_THAT(At("client", "old"), ElementsAre("two"));
    EXPECT_THAT(At("client", "new"), IsEmpty());
    EXPECT_THAT(At("q", ""), IsEmpty());
    EXPECT_EQ(m_subscriptions.Status("one").state, ConfigurationState::failed);
    EXPECT_EQ(m_subscriptions.Status("one").error, "refused");
    EXPECT_FALSE(m_subscriptions.IsConfiguring());
}

TEST_F(SubscriptionsTest, ABeginInTheMiddleStartsAnew)
{
    Configure("one", {{"old", "client"}});
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.AddTopic("one", "half", "client");
    Configure("one", {{"new", "client"}});
    EXPECT_THAT(At("client", "half"), IsEmpty());
    EXPECT_THAT(At("client", "old"), IsEmpty());
    EXPECT_THAT(At("client", "new"), ElementsAre("one"));
    EXPECT_FALSE(m_subscriptions.IsConfiguring());
}

TEST_F(SubscriptionsTest, ACommitWithoutABeginChangesNothing)
{
    Configure("one", {{"a", "client"}});
    m_subscriptions.Commit("one");
    EXPECT_THAT(At("client", "a"), ElementsAre("one"));
}

TEST_F(SubscriptionsTest, ForgetRemovesEverythingAlsoAConfigurationUnderWay)
{
    Configure("one", {{"a", "client"}, {"a.#", "urgent"}});
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.AddTopic("one", "b", "client");
    m_subscriptions.Forget("one");
    m_subscriptions.Forget("nobody");
    EXPECT_FALSE(m_subscriptions.IsConfiguring());
    EXPECT_THAT(At("client", "a"), IsEmpty());
    EXPECT_THAT(At("client", "b"), IsEmpty());
    EXPECT_EQ(m_subscriptions.Status("one").state, ConfigurationState::missing);
}

TEST_F(SubscriptionsTest, StatusListsWhatIsInForce)
{
    EXPECT_EQ(m_subscriptions.Status("one").state, ConfigurationState::missing);
    Configure("one", {{"b", "client"}, {"a", "urgent"}});
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.AddTopic("one", "c", "client");
    ConfigurationStatus status = m_subscriptions.Status("one");
    EXPECT_EQ(status.state, ConfigurationState::applying);
    EXPECT_THAT(status.topics, ElementsAre("a", "b"));
    m_subscriptions.Commit("one");
    status = m_subscriptions.Status("one");
    EXPECT_EQ(status.state, ConfigurationState::applied);
    EXPECT_THAT(status.topics, ElementsAre("c"));
}

TEST_F(SubscriptionsTest, ObserversHearEveryChange)
{
    m_subscriptions.BeginConfiguration("one");
    m_subscriptions.AddTopic("one", "t", "client");
    m_subscriptions.AddQueue("one", "q");
    m_subscriptions.Commit("one");
    EXPECT_THAT(m_changes, ElementsAre("state one", "topic onet", "queue oneq", "state one"));
}

TEST_F(SubscriptionsTest, ALookUpWhileConfiguringAlwaysFindsAKeptTopic)
{
    Configure("one", {{"kept", "client"}, {"kept.*", "client"}});
    std::atomic<bool> stop{false};
    std::atomic<int> missed{0};
    std::thread reader(
        [this, &stop, &missed]
        {
            while (!stop)
            {
                missed += At("client", "kept").size() == 1 ? 0 : 1;
                missed += At("client", "kept.x").size() == 1 ? 0 : 1;
            }
        });
    for (int round = 0; round < 300; ++round)
    {
        Configure("one", {{"kept", "client"}, {std::to_string(round), "urgent"}, {"kept.*", "client"}});
    }
    stop = true;
    reader.join();
    EXPECT_EQ(missed, 0);
}

} // namespace
} // namespace VtxQel

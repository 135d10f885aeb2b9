#include "routing/RoutingRegistry.h"

#include "fakes/FakeMsgHandler.h"
#include "fakes/LogCapture.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace VtxQel
{
namespace
{

using Fakes::LogCapture;
using Fakes::Strings;

boost::shared_ptr<RoutingRegistryEntry> Entry(int priority = 0)
{
    return boost::make_shared<RoutingRegistryEntry>(
        boost::make_shared<Fakes::FakeMsgHandler>(), static_cast<channelPriority_e>(priority));
}

// The registry's first member is its lock: the Itanium C++ ABI puts it right after the pointer to the virtual table.
bool IsLocked(RoutingRegistry& registry)
{
    auto& lock = *reinterpret_cast<boost::recursive_mutex*>(reinterpret_cast<char*>(&registry) + sizeof(void*));
    bool locked = true;
    std::thread(
        [&lock, &locked]
        {
            if (lock.try_lock())
            {
                lock.unlock();
                locked = false;
            }
        })
        .join();
    return locked;
}

TEST(RoutingRegistryEntry, TheConstructorWithoutATypeMakesATopicRoute)
{
    const auto handler = boost::make_shared<Fakes::FakeMsgHandler>();
    const RoutingRegistryEntry entry(handler, channelPriorityHigh);
    EXPECT_EQ(entry.handler, handler);
    EXPECT_EQ(entry.routeType, 2);
    EXPECT_EQ(entry.priority, 1);
}

TEST(RoutingRegistryEntry, TheConstructorWithATypeTakesItAsItIs)
{
    const auto handler = boost::make_shared<Fakes::FakeMsgHandler>();
    const RoutingRegistryEntry entry(handler, 7, channelPriorityNormal);
    EXPECT_EQ(entry.handler, handler);
    EXPECT_EQ(entry.routeType, 7);
    EXPECT_EQ(entry.priority, 0);
}

TEST(RoutingRegistryEntry, IsAPlainClassOfThreeFieldsInOrder)
{
    EXPECT_FALSE(std::is_polymorphic_v<RoutingRegistryEntry>);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<channelPriority_e>, std::int32_t>));
    EXPECT_TRUE((std::is_convertible_v<channelPriority_e, int>));
    EXPECT_TRUE((std::is_same_v<decltype(RoutingRegistryEntry::routeType), std::int32_t>));
    EXPECT_EQ(sizeof(RoutingRegistryEntry), sizeof(boost::shared_ptr<MsgHandler>) + 8);
    const RoutingRegistryEntry entry(nullptr, channelPriorityNormal);
    EXPECT_EQ(static_cast<const void*>(&entry), &entry.handler);
    EXPECT_LT(static_cast<const void*>(&entry.routeType), &entry.priority);
}

TEST(RoutingRegistryEntry, DestroyingItReleasesItsHandler)
{
    const auto handler = boost::make_shared<Fakes::FakeMsgHandler>();
    {
        const RoutingRegistryEntry entry(handler, channelPriorityNormal);
        EXPECT_EQ(handler.use_count(), 2);
    }
    EXPECT_EQ(handler.use_count(), 1);
}

TEST(RoutingRegistry, FindOfAnAbsentKeyIsEmptyAndMakesNoDifference)
{
    const LogCapture log(7);
    RoutingRegistry registry;
    EXPECT_FALSE(registry.Find("key"));
    EXPECT_FALSE(registry.Find("key"));
    EXPECT_FALSE(registry.Remove("key"));
    EXPECT_EQ(log.Lines().size(), 1U);
}

TEST(RoutingRegistry, FindReturnsAReferenceToTheStoredEntry)
{
    RoutingRegistry registry;
    const auto entry = Entry();
    registry.Add("key", entry);
    EXPECT_EQ(registry.Find("key"), entry);
    EXPECT_EQ(entry.use_count(), 2);
}

TEST(RoutingRegistry, KeysMatchByFullBytewiseEquality)
{
    RoutingRegistry registry;
    registry.Add("status.host", Entry());
    registry.Add(std::string("nul\0x", 5), Entry());
    EXPECT_FALSE(registry.Find("status"));
    EXPECT_FALSE(registry.Find("status.host.disk"));
    EXPECT_FALSE(registry.Find("Status.host"));
    EXPECT_FALSE(registry.Find("nul"));
    EXPECT_TRUE(registry.Find(std::string("nul\0x", 5)));
}

TEST(RoutingRegistry, AddReplacesTheEntryOfAKeyThatIsPresent)
{
    RoutingRegistry registry;
    const auto first = Entry();
    const auto second = Entry(1);
    registry.Add("key", first);
    registry.Add("key", second);
    EXPECT_EQ(registry.Find("key"), second);
    EXPECT_EQ(first.use_count(), 1);
}

TEST(RoutingRegistry, RemoveOfAPresentKeyReturnsTrueAndErasesIt)
{
    const LogCapture log(7);
    RoutingRegistry registry;
    registry.Add("key", Entry());
    registry.Add("other", Entry());
    EXPECT_TRUE(registry.Remove("key"));
    EXPECT_FALSE(registry.Find("key"));
    EXPECT_TRUE(registry.Find("other"));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST(RoutingRegistry, AnEntryHandedOutOutlivesItsRemoval)
{
    RoutingRegistry registry;
    const auto handler = boost::make_shared<Fakes::FakeMsgHandler>();
    registry.Add("key", boost::make_shared<RoutingRegistryEntry>(handler, 1, channelPriorityHigh));
    const auto found = registry.Find("key");
    registry.Remove("key");
    EXPECT_EQ(found.use_count(), 1);
    EXPECT_EQ(found->handler, handler);
    EXPECT_EQ(found->routeType, 1);
    EXPECT_EQ(found->priority, 1);
}

TEST(RoutingRegistry, RemoveOfAnAbsentKeyReturnsFalseAndLogsOnce)
{
    const LogCapture log(2);
    RoutingRegistry registry;
    EXPECT_FALSE(registry.Remove("no.such.key"));
    EXPECT_EQ(
        log.Lines(), Strings({"2 qel errorCode:QELERR_QEL_RMQ_DUPLICATE_KEY Removing non-existence routing key. "
                              "no.such.key"}));
}

TEST(RoutingRegistry, RemoveOfAnAbsentKeyIsSilentBelowLevelTwo)
{
    const LogCapture log(1);
    RoutingRegistry registry;
    EXPECT_FALSE(registry.Remove("no.such.key"));
    EXPECT_EQ(log.Lines(), Strings());
}

TEST(RoutingRegistry, TheLockIsHeldWhileRemoveLogs)
{
    const LogCapture log(2);
    RoutingRegistry registry;
    bool locked = false;
    vtx::SetLogSink([&](const vtx::LogLine&) { locked = IsLocked(registry); });
    registry.Remove("absent");
    EXPECT_TRUE(locked);
    EXPECT_FALSE(IsLocked(registry));
}

// Replaces Find to see how Remove uses it.
class WatchedRegistry : public RoutingRegistry
{
  public:
    boost::shared_ptr<RoutingRegistryEntry> Find(const std::string& key) override
    {
        keys.push_back(key);
        lockedInFind = IsLocked(*this);
        auto entry = answer ? answer : RoutingRegistry::Find(key);
        answer.reset();
        return entry;
    }

    Strings keys;
    bool lockedInFind = false;
    boost::shared_ptr<RoutingRegistryEntry> answer;
};

TEST(RoutingRegistry, RemoveCallsTheVirtualFindUnderItsLock)
{
    WatchedRegistry registry;
    registry.Add("key", Entry());
    EXPECT_TRUE(registry.Remove("key"));
    EXPECT_EQ(registry.keys, Strings({"key"}));
    EXPECT_TRUE(registry.lockedInFind);
    EXPECT_FALSE(IsLocked(registry));
}

TEST(RoutingRegistry, RemoveReturnsWhetherOneElementWasErased)
{
    const LogCapture log(2);
    WatchedRegistry registry;
    registry.answer = Entry();
    EXPECT_FALSE(registry.Remove("key"));
    EXPECT_EQ(log.Lines(), Strings());
}

// Shown by Remove, which counts what it erases: had Find inserted the key, there would be something to erase.
TEST(RoutingRegistry, FindNeverInserts)
{
    const LogCapture log(2);
    WatchedRegistry registry;
    EXPECT_FALSE(registry.Find("key"));
    registry.answer = Entry();
    EXPECT_FALSE(registry.Remove("key"));
}

TEST(RoutingRegistry, RemoveDropsTheEntryFoundBeforeItErases)
{
    WatchedRegistry registry;
    registry.Add("key", Entry());
    bool presentWhenDropped = false;
    registry.answer = boost::make_shared<RoutingRegistryEntry>(
        boost::make_shared<Fakes::FakeMsgHandler>(
            [&] { presentWhenDropped = registry.RoutingRegistry::Find("key") != nullptr; }),
        channelPriorityNormal);
    EXPECT_TRUE(registry.Remove("key"));
    EXPECT_TRUE(presentWhenDropped);
}

TEST(RoutingRegistry, FindAndAddHoldTheLockForTheirOwnDurationOnly)
{
    RoutingRegistry registry;
    registry.Add("key", Entry());
    EXPECT_FALSE(IsLocked(registry));
    registry.Find("key");
    EXPECT_FALSE(IsLocked(registry));
}

TEST(RoutingRegistry, TheReplacedEntryIsDestroyedAfterTheLockIsGivenUp)
{
    RoutingRegistry registry;
    bool locked = true;
    registry.Add(
        "key",
        boost::make_shared<RoutingRegistryEntry>(
            boost::make_shared<Fakes::FakeMsgHandler>([&] { locked = IsLocked(registry); }), channelPriorityNormal));
    registry.Add("key", Entry());
    EXPECT_FALSE(locked);
}

TEST(RoutingRegistry, DestroyingItReleasesItsEntries)
{
    const auto entry = Entry();
    {
        RoutingRegistry registry;
        registry.Add("key", entry);
    }
    EXPECT_EQ(entry.use_count(), 1);
}

// For the thread sanitizer, and for lost updates: what one thread adds nobody else removes.
TEST(RoutingRegistry, ThreadsMayUseItAtOnce)
{
    const LogCapture log(1);
    RoutingRegistry registry;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back(
            [&registry, thread]
            {
                for (int i = 0; i < 500; ++i)
                {
                    const std::string key = std::to_string(thread) + "." + std::to_string(i);
                    registry.Add(key, Entry());
                    registry.Add("shared", Entry());
                    const auto shared = registry.Find("shared");
                    EXPECT_TRUE(!shared || shared->routeType == 2);
                    registry.Remove("shared");
                    EXPECT_TRUE(i % 2 == 0 || registry.Remove(key));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_TRUE(registry.Find("3.498"));
    EXPECT_FALSE(registry.Find("3.499"));
}

} // namespace
} // namespace VtxQel

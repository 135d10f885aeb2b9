#include "apps/LocalAppRegistry.h"

#include "apps/LocalAppEntry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

TEST(LocalAppRegistry, KnowsExactlyTheNamesOfTheLastReload)
{
    LocalAppRegistry registry;
    EXPECT_EQ(registry.Lookup("a"), nullptr);
    registry.Reload({"a", "b"});
    EXPECT_NE(registry.Lookup("a"), nullptr);
    registry.Reload({"b"});
    EXPECT_EQ(registry.Lookup("a"), nullptr);
    EXPECT_NE(registry.Lookup("b"), nullptr);
}

TEST(LocalAppRegistry, TheEntryOfAnApplicationThatStaysIsKept)
{
    LocalAppRegistry registry;
    registry.Reload({"a"});
    const auto entry = boost::dynamic_pointer_cast<AppRegistryEntry>(registry.Lookup("a"));
    ASSERT_NE(entry, nullptr);
    entry->AddTopic("t");
    entry->AddTopic("t");
    registry.Reload({"z", "a"});
    EXPECT_EQ(registry.Lookup("a"), entry);
    EXPECT_THAT(entry->GetTopics(), testing::ElementsAre("t", "t"));
    entry->ClearTopics();
    EXPECT_THAT(entry->GetTopics(), testing::IsEmpty());
}

} // namespace
} // namespace VtxQel

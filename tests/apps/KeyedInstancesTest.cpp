#include "apps/KeyedInstances.h"

#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

using std::chrono::seconds;

class KeyedInstancesTest : public testing::Test
{
  protected:
    KeyedInstances m_keys;
    KeyedInstances::TimePoint m_now{std::chrono::hours(1)};
};

TEST_F(KeyedInstancesTest, AKeyStaysWithItsInstanceWhenItHasNothingOfItAnyMore)
{
    EXPECT_EQ(m_keys.Find(7), std::nullopt);
    m_keys.Take(7, 1, m_now);
    EXPECT_FALSE(m_keys.IsIdle(7));
    m_keys.Release(7, m_now);
    EXPECT_TRUE(m_keys.IsIdle(7));
    EXPECT_EQ(m_keys.Find(7), 1U);
}

TEST_F(KeyedInstancesTest, AKeyIsIdleWhenAllOfItIsReleased)
{
    m_keys.Take(7, 1, m_now);
    m_keys.Take(7, 1, m_now);
    m_keys.Release(7, m_now);
    EXPECT_FALSE(m_keys.IsIdle(7));
    m_keys.Release(7, m_now);
    EXPECT_TRUE(m_keys.IsIdle(7));
    m_keys.Take(7, 1, m_now);
    EXPECT_FALSE(m_keys.IsIdle(7));
}

TEST_F(KeyedInstancesTest, AnInstanceThatIsGoneFreesItsKeysAndNoOthers)
{
    m_keys.Take(1, 1, m_now);
    m_keys.Take(2, 1, m_now);
    m_keys.Release(2, m_now);
    m_keys.Take(3, 2, m_now);
    m_keys.Remove(1);
    EXPECT_EQ(m_keys.Find(1), std::nullopt);
    EXPECT_EQ(m_keys.Find(2), std::nullopt);
    EXPECT_EQ(m_keys.Find(3), 2U);
    m_keys.Release(1, m_now);
    m_keys.Take(2, 2, m_now);
    EXPECT_EQ(m_keys.Find(2), 2U);
}

TEST_F(KeyedInstancesTest, AQuietKeyIsForgottenAndOneInHandIsNot)
{
    m_keys.Take(1, 1, m_now);
    m_keys.Take(2, 1, m_now);
    m_keys.Release(2, m_now);
    m_keys.Take(3, 1, m_now + seconds(59));
    EXPECT_EQ(m_keys.Find(2), 1U);
    m_keys.Take(3, 1, m_now + seconds(60));
    EXPECT_EQ(m_keys.Find(2), std::nullopt);
    EXPECT_EQ(m_keys.Find(1), 1U);
}

TEST_F(KeyedInstancesTest, OfVeryManyIdleKeysThoseThatAreQuietLongestAreForgotten)
{
    for (OrderingKey key = 1; key <= KeyedInstances::mostIdle + 10; ++key)
    {
        m_keys.Take(key, 1, m_now);
        m_keys.Release(key, m_now);
    }
    m_keys.Take(1, 1, m_now);
    EXPECT_EQ(m_keys.Size(), KeyedInstances::mostIdle + 1);
    EXPECT_EQ(m_keys.Find(2), std::nullopt);
    EXPECT_EQ(m_keys.Find(KeyedInstances::mostIdle), 1U);
}

} // namespace
} // namespace VtxQel

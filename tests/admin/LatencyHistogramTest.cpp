#include "common/LatencyHistogram.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace VtxQel
{
namespace
{

using namespace std::chrono_literals;

TEST(LatencyHistogram, ADurationCountsInTheFirstBucketThatHoldsIt)
{
    LatencyHistogram histogram;
    histogram.Observe(0ns);
    histogram.Observe(100us);
    histogram.Observe(100001ns);
    histogram.Observe(61s);
    const LatencySnapshot snapshot = histogram.Read();
    EXPECT_EQ(snapshot.counts[0], 2U);
    EXPECT_EQ(snapshot.counts[1], 1U);
    EXPECT_EQ(snapshot.counts.back(), 1U);
    EXPECT_EQ(snapshot.Count(), 4U);
    EXPECT_EQ(snapshot.sum, 61s + 200001ns);
}

TEST(LatencyHistogram, QuantilesAreUpperBounds)
{
    LatencyHistogram histogram;
    EXPECT_EQ(histogram.Read().Quantile(0.5), 0us);
    for (int count = 0; count < 99; ++count)
    {
        histogram.Observe(3ms);
    }
    histogram.Observe(100s);
    const LatencySnapshot snapshot = histogram.Read();
    EXPECT_EQ(snapshot.Quantile(0), 5ms);
    EXPECT_EQ(snapshot.Quantile(0.5), 5ms);
    EXPECT_EQ(snapshot.Quantile(0.99), 5ms);
    EXPECT_EQ(snapshot.Quantile(1), 60s);
}

TEST(LatencyHistogram, NothingIsLostBetweenThreads)
{
    LatencyHistogram histogram;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int number = 0; number < 4; ++number)
    {
        threads.emplace_back(
            [&histogram]
            {
                for (int count = 0; count < 10000; ++count)
                {
                    histogram.Observe(std::chrono::microseconds(count));
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(histogram.Read().Count(), 40000U);
}

} // namespace
} // namespace VtxQel

#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace VtxQel
{

/** How many durations fell into each bucket, at one moment. */
struct LatencySnapshot
{
    /** The upper bounds of the buckets, included; one more bucket takes everything above. */
    static constexpr std::array<std::chrono::microseconds, 18> BOUNDS{
        std::chrono::microseconds(100),      std::chrono::microseconds(250),      std::chrono::microseconds(500),
        std::chrono::microseconds(1000),     std::chrono::microseconds(2500),     std::chrono::microseconds(5000),
        std::chrono::microseconds(10000),    std::chrono::microseconds(25000),    std::chrono::microseconds(50000),
        std::chrono::microseconds(100000),   std::chrono::microseconds(250000),   std::chrono::microseconds(500000),
        std::chrono::microseconds(1000000),  std::chrono::microseconds(2500000),  std::chrono::microseconds(5000000),
        std::chrono::microseconds(10000000), std::chrono::microseconds(30000000), std::chrono::microseconds(60000000)};

    std::array<std::uint64_t, BOUNDS.size() + 1> counts{};
    std::chrono::nanoseconds sum{0};

    std::uint64_t Count() const;
    /**
     * The duration that this part of all (0 to 1) does not exceed, to the precision of the buckets: the upper bound of
     * its bucket, the largest bound for what is above all. Zero when there is nothing.
     */
    std::chrono::microseconds Quantile(double part) const;
};

/** Counts durations in fixed buckets. Any thread may call; nothing locks, waits or allocates. */
class LatencyHistogram
{
  public:
    void Observe(std::chrono::nanoseconds duration);
    LatencySnapshot Read() const;

  private:
    std::array<std::atomic<std::uint64_t>, LatencySnapshot::BOUNDS.size() + 1> m_counts{};
    std::atomic<std::int64_t> m_nanoseconds{0};
};

} // namespace VtxQel

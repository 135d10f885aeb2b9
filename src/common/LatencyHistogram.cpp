#include "common/LatencyHistogram.h"

#include <algorithm>
#include <numeric>

namespace VtxQel
{

std::uint64_t LatencySnapshot::Count() const
{
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

std::chrono::microseconds LatencySnapshot::Quantile(double part) const
{
    const std::uint64_t count = Count();
    if (count == 0)
    {
        return std::chrono::microseconds(0);
    }
    const double wanted = part * static_cast<double>(count);
    std::uint64_t reached = 0;
    for (std::size_t index = 0; index < BOUNDS.size(); ++index)
    {
        reached += counts[index];
        if (reached != 0 && static_cast<double>(reached) >= wanted)
        {
            return BOUNDS[index];
        }
    }
    return BOUNDS.back();
}

void LatencyHistogram::Observe(std::chrono::nanoseconds duration)
{
    const auto& bounds = LatencySnapshot::BOUNDS;
    const auto bucket = std::lower_bound(bounds.begin(), bounds.end(), duration) - bounds.begin();
    m_counts[static_cast<std::size_t>(bucket)].fetch_add(1, std::memory_order_relaxed);
    m_nanoseconds.fetch_add(duration.count(), std::memory_order_relaxed);
}

LatencySnapshot LatencyHistogram::Read() const
{
    LatencySnapshot snapshot;
    for (std::size_t index = 0; index < m_counts.size(); ++index)
    {
        snapshot.counts[index] = m_counts[index].load(std::memory_order_relaxed);
    }
    snapshot.sum = std::chrono::nanoseconds(m_nanoseconds.load(std::memory_order_relaxed));
    return snapshot;
}

} // namespace VtxQel

#pragma once

#include <atomic>

namespace VtxQel
{

/**
 * DeliverySource stands for the channel that deliveries came by, for as long as anybody holds one of them. While it is
 * not over they can be settled; afterwards the broker delivers them again. Any thread.
 */
class DeliverySource
{
  public:
    bool IsOver() const { return m_over; }
    void End() { m_over = true; }

  private:
    std::atomic<bool> m_over{false};
};

} // namespace VtxQel

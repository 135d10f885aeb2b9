#pragma once

#include "apps/ParkingQueues.h"
#include "broker/BrokerClient.h"

#include <algorithm>
#include <functional>
#include <string>
#include <utility>

namespace VtxQel
{

/** The parking queues of the applications' module, on the broker. Every operation just enqueues. */
class BrokerParking : public ParkingQueues
{
  public:
    /** The client outlives the adapter. */
    explicit BrokerParking(BrokerClient& client) : m_client(client) {}

    void Consume(const std::string& application, std::uint32_t window) override
    {
        m_client.ConsumeParking(application, static_cast<std::uint16_t>(std::clamp(window, 1U, MOST_AHEAD)));
    }
    void SendMarker(
        const std::string& application, std::uint64_t marker, std::function<void(bool sent)> completion) override
    {
        const RmqTable headers{{parkingMarkerHeader, RmqValue::Integer(static_cast<std::int64_t>(marker))}};
        m_client.Settling().Mark(application, headers, std::move(completion));
    }
    void Release(const std::string& application) override { m_client.ReleaseParking(application); }

  private:
    /** Bounds what is in memory for an application that does not take it: the rest waits on the broker. */
    static constexpr std::uint32_t MOST_AHEAD = 100;

    BrokerClient& m_client;
};

} // namespace VtxQel

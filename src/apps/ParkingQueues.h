#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace VtxQel
{

/** The header that makes a message in a parking queue a marker; its value is the marker's number. */
constexpr const char* parkingMarkerHeader = "x-qel-marker";

/**
 * The applications' parking queues on the broker, as an application drains its own.
 *
 * Every operation is called with the application's lock held, so that the order of the calls is that of the decisions:
 * implementations enqueue the work and return at once, and never call back before they have returned. What an
 * application's calls (and Receipt::Park() for it) ask for is carried out in the order of the calls.
 */
class ParkingQueues
{
  public:
    virtual ~ParkingQueues() = default;

    /** Consumes the application's parking queue, which is declared when absent, with this many unsettled ahead. */
    virtual void Consume(const std::string& application, std::uint32_t window) = 0;
    /**
     * Publishes a marker to the end of the parking queue, behind everything parked before this call.
     * @param completion told once whether the broker confirmed it, on any thread.
     */
    virtual void SendMarker(
        const std::string& application, std::uint64_t marker, std::function<void(bool sent)> completion) = 0;
    /**
     * Stops consuming and gives everything unsettled from the parking queue back to it, in its order, also what a
     * consumption that was stopped before has left unsettled. Nothing of it is dispatched any more.
     */
    virtual void Release(const std::string& application) = 0;
};

} // namespace VtxQel

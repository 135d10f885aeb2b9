#include "agent/ServiceNotifier.h"

#include <cinttypes>
#include <cstdint>
#include <ctime>
#include <systemd/sd-daemon.h>

namespace VtxQel::ServiceNotifier
{

namespace
{

constexpr std::uint64_t MICROSECONDS = 1000000;
constexpr std::uint64_t NANOSECONDS_OF_ONE = 1000;

/** systemd tells by this time, of its own clock, which reload a READY=1 belongs to. */
std::uint64_t Now()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * MICROSECONDS +
           static_cast<std::uint64_t>(now.tv_nsec) / NANOSECONDS_OF_ONE;
}

} // namespace

void Ready()
{
    sd_notify(0, "READY=1");
}

void Reloading()
{
    sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%" PRIu64, Now());
}

void Stopping()
{
    sd_notify(0, "STOPPING=1\nSTATUS=stopping");
}

void Status(const std::string& text)
{
    sd_notifyf(0, "STATUS=%s", text.c_str());
}

void Alive()
{
    sd_notify(0, "WATCHDOG=1");
}

std::chrono::microseconds WatchdogInterval()
{
    std::uint64_t interval = 0;
    return sd_watchdog_enabled(0, &interval) > 0 ? std::chrono::microseconds(interval) : std::chrono::microseconds(0);
}

} // namespace VtxQel::ServiceNotifier

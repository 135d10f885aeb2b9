#pragma once

#include <chrono>
#include <string>

namespace VtxQel
{

/**
 * What the agent tells the service manager that started it (sd_notify(3)); without one every call does nothing.
 * Thread-safe; does not block.
 */
namespace ServiceNotifier
{

/** The agent has started: its sockets are open. Being connected is not part of it: hosts boot while brokers are down.
 */
void Ready();
void Reloading();
void Stopping();
/** One line for `systemctl status`. */
void Status(const std::string& text);
/** Everything gets on. */
void Alive();

/** How often Alive() is expected, at least; zero when nobody waits for it. */
std::chrono::microseconds WatchdogInterval();

} // namespace ServiceNotifier

} // namespace VtxQel

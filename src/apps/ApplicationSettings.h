#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace VtxQel
{

/** What a drop-in file says about one application. A plain value. */
struct ApplicationSettings
{
    std::string name;
    /** Who may attach beside root and the agent itself; empty is the agent's own user or group. */
    std::string user;
    std::string group;
    /** How many deliveries one instance may have without a verdict. */
    std::uint32_t window = 1000;
    /** How long an instance may take for one verdict. */
    std::chrono::seconds ackTimeout{60};
    /** How often a message is given to the application at most when it answers "retry". */
    std::uint32_t maxTries = 5;
    /** A bound of its own on the bytes that are held for it, below the one for all. */
    std::optional<std::size_t> maxHeldBytes;
    /** By what messages are kept in order over several instances: nothing, "routing_key" or "header:NAME". */
    std::string orderingKey;

    bool operator==(const ApplicationSettings&) const = default;
};

/** The longest name; a name consists of letters, digits, '.', '_' and '-'. */
constexpr std::size_t maxApplicationNameLength = 64;

/** Whether an application may have this name. */
bool IsApplicationName(const std::string& name);

} // namespace VtxQel

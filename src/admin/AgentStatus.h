#pragma once

#include "common/LatencyHistogram.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace VtxQel
{

using WallTime = std::chrono::system_clock::time_point;
using Seconds = std::chrono::duration<double>;

/** A count for each of a fixed set of names. Names are words of lower case joined by '_'. */
using Counts = std::vector<std::pair<std::string, std::uint64_t>>;

struct ConnectionFigures
{
    /** disconnected, restoring, consuming */
    std::string state;
    std::string url;
    std::optional<WallTime> connectedSince;
    Seconds age{0};
    bool blocked = false;
    bool readingPaused = false;
    std::size_t heldBytes = 0;
    /** Routes that the broker refused to restore. */
    std::size_t unrestored = 0;
    std::string lastError;
    Counts reconnects;
    /** To another front end: moved, failed. */
    Counts moves;
    std::string lastMoveError;
};

struct LoopProbeFigures
{
    /** off, waiting, fresh, behind, failed */
    std::string state;
    std::chrono::seconds interval{0};
    std::chrono::seconds deadline{0};
    std::optional<WallTime> lastReturnAt;
    LatencySnapshot roundTrips;
    std::chrono::nanoseconds lastRoundTrip{0};
    std::uint64_t failed = 0;
    std::uint64_t failuresInARow = 0;
    /** Probes of other processes that came from our queue. */
    std::uint64_t strangers = 0;
    std::string error;
};

struct LaneFigures
{
    std::string name;
    std::uint64_t received = 0;
    std::size_t waiting = 0;
    std::uint64_t inFlight = 0;
    /** Times that handling ended with an exception. */
    std::uint64_t failures = 0;
    Counts settled;
    LatencySnapshot latency;
};

/** A configuration that could not be carried out. */
struct ConfigurationFailure
{
    std::string hash;
    std::string error;
    WallTime at;
};

/** An application's configuration as it stands. */
struct ConfigurationFigures
{
    /** missing, applying, applied, failed */
    std::string state;
    std::string hash;
    std::size_t topics = 0;
    std::size_t queues = 0;
    std::optional<WallTime> at;
    std::optional<Seconds> duration;
    std::string error;
    std::optional<ConfigurationFailure> lastFailure;
};

struct ApplicationFigures
{
    std::string name;
    /** parked, draining, switching, live */
    std::string flow;
    std::size_t instances = 0;
    std::uint64_t window = 0;
    std::size_t inFlight = 0;
    std::size_t pending = 0;
    std::size_t waitingForRetry = 0;
    std::size_t heldBytes = 0;
    std::uint64_t tries = 0;
    Counts verdicts;
    std::uint64_t tooManyTries = 0;
    std::uint64_t parked = 0;
    std::uint64_t overdue = 0;
    ConfigurationFigures configuration;
};

/** One configuration that was carried out or failed. */
struct ConfigurationEvent
{
    std::string application;
    WallTime at;
    bool succeeded = false;
    std::string hash;
    std::size_t topics = 0;
    std::size_t queues = 0;
    Seconds duration{0};
    std::string error;
};

struct ConfigurationTotals
{
    std::uint64_t applied = 0;
    std::uint64_t failed = 0;
    LatencySnapshot durations;
    /** The last ones, newest first. */
    std::vector<ConfigurationEvent> recent;
};

struct RouteFigures
{
    Counts bindings;
    std::size_t queues = 0;
    bool journalDegraded = false;
};

/** The agent's own queues. */
struct OwnQueueNames
{
    std::string client;
    std::string priority;
    std::string deadLetter;
};

struct PingFigures
{
    std::uint64_t answered = 0;
    std::uint64_t failed = 0;
    LatencySnapshot latency;
};

struct CertificateFigures
{
    /** authority, client, broker */
    std::string role;
    WallTime notAfter;
};

/** Everything that the admin endpoint shows of the agent, at one moment. Plain values. */
struct AgentStatus
{
    std::string id;
    std::string version;
    WallTime startedAt;
    Seconds uptime{0};
    int logLevel = 0;
    /** Why the agent is not ready; empty when it is. */
    std::vector<std::string> notReady;
    ConnectionFigures connection;
    LoopProbeFigures loopProbe;
    std::vector<LaneFigures> lanes;
    std::vector<ApplicationFigures> applications;
    ConfigurationTotals configurations;
    RouteFigures routes;
    OwnQueueNames queues;
    PingFigures pings;
    Counts deadLetters;
    std::uint64_t refusedControlMessages = 0;
    std::vector<CertificateFigures> certificates;
};

/** One topic or queue of one or more applications. */
struct RouteRow
{
    /** topic, queue */
    std::string kind;
    std::string name;
    /** The queue that a topic is bound to. */
    std::string queue;
    /** intended, in_force, leaving */
    std::string state;
    std::vector<std::string> applications;
};

/** Which routes are wanted. */
struct RouteQuery
{
    /** A text that the name contains. */
    std::string search;
    /** Only those of this application; everybody's when empty. */
    std::string application;
    std::size_t offset = 0;
    std::size_t limit = 50;
};

struct RouteRows
{
    std::size_t total = 0;
    std::size_t matching = 0;
    std::vector<RouteRow> rows;
};

} // namespace VtxQel

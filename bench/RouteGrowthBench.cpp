// What finding a message's route costs as routes grow: nanoseconds a message, and bytes a route.
//
//   FindRoute        the routing registry's answer for an exact key
//   ResolveExact     which application takes it, by exact topics alone
//   FindAndResolve   both, as a message that arrives on the client queue meets them
//   ResolveStar, ResolveHash, ResolveInner
//                    among so many patterns: `a.*.c`, `a.b.#`, and `*.b.#.d` with different last words
//   ResolveShare     among 10,000 topics of which so many of a hundred are patterns, `*` and `#` in turns
//   ResolveForMany   a key that so many applications have
//
// Keys are asked in random order, so that large tables are met outside of the processor's caches, as messages meet
// them. `found` is the share of the keys that had a taker: anything but 1 says that the measurement is wrong.
// `bytes_per_route` is what the allocator has handed out for the tables that are asked.

#include "GrowthTables.h"
#include "apps/Subscriptions.h"
#include "routing/RoutingRegistry.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace
{

using namespace VtxQel;

constexpr std::size_t MOST_KEYS = 65536;
const std::string CLIENT_QUEUE = "qel.client.bench";
const std::string PRIORITY_QUEUE = "qel.priority.bench";

/** Asks for the keys, one after the other, as often as the benchmark wants. */
template <typename Ask>
void AskFor(benchmark::State& state, const std::vector<std::string>& keys, const Ask& ask)
{
    std::size_t next = 0;
    std::size_t found = 0;
    for ([[maybe_unused]] auto iteration : state)
    {
        found += ask(keys[next]) ? 1 : 0;
        next = next + 1 == keys.size() ? 0 : next + 1;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["found"] = static_cast<double>(found) / static_cast<double>(state.iterations());
}

/** At most MOST_KEYS numbers below `count`, drawn at random, some more than once: the same in each run. */
std::vector<std::size_t> Sample(std::size_t count)
{
    std::mt19937_64 random(20261121); // NOLINT(bugprone-random-generator-seed): each run shall ask alike
    std::vector<std::size_t> numbers(std::min(count, MOST_KEYS));
    std::generate(numbers.begin(), numbers.end(), [&] { return random() % count; });
    return numbers;
}

std::vector<std::string> KeysOf(std::size_t count, std::string (*keyOf)(std::size_t))
{
    std::vector<std::string> keys;
    for (const std::size_t number : Sample(count))
    {
        keys.push_back(keyOf(number));
    }
    return keys;
}

/** A registry and subscriptions with so many exact topics, spread over ten applications. */
struct ExactTables
{
    explicit ExactTables(std::size_t count)
    {
        const boost::shared_ptr<MsgHandler> handler;
        const std::size_t before = HeapBytes();
        for (std::size_t number = 0; number < count; ++number)
        {
            registry.Add(TopicOf(number), boost::make_shared<RoutingRegistryEntry>(handler, channelPriorityNormal));
        }
        registryBytes = PerRoute(HeapBytes() - before, count);
        const std::size_t between = HeapBytes();
        for (std::size_t number = 0; number < count; ++number)
        {
            subscriptions.AddTopic("application-" + std::to_string(number % 10), TopicOf(number), CLIENT_QUEUE);
        }
        subscriptionBytes = PerRoute(HeapBytes() - between, count);
    }

    RoutingRegistry registry;
    Subscriptions subscriptions{CLIENT_QUEUE, PRIORITY_QUEUE, true};
    double registryBytes = 0;
    double subscriptionBytes = 0;
};

/** The tables of that size: those of the last call are kept, as the library calls a benchmark several times. */
ExactTables& TablesOf(std::size_t count)
{
    static std::unique_ptr<ExactTables> last;
    static std::size_t lastCount = 0;
    if (count != lastCount)
    {
        last.reset();
        last = std::make_unique<ExactTables>(count);
        lastCount = count;
    }
    return *last;
}

std::size_t Argument(const benchmark::State& state)
{
    return static_cast<std::size_t>(state.range(0));
}

void FindRoute(benchmark::State& state)
{
    ExactTables& tables = TablesOf(Argument(state));
    AskFor(
        state, KeysOf(Argument(state), TopicOf),
        [&](const std::string& key) { return tables.registry.Find(key) != nullptr; });
    state.counters["bytes_per_route"] = tables.registryBytes;
}

void ResolveExact(benchmark::State& state)
{
    ExactTables& tables = TablesOf(Argument(state));
    AskFor(
        state, KeysOf(Argument(state), TopicOf),
        [&](const std::string& key)
        { return tables.subscriptions.Resolve(CLIENT_QUEUE, key).applications.size() == 1; });
    state.counters["bytes_per_route"] = tables.subscriptionBytes;
}

void FindAndResolve(benchmark::State& state)
{
    ExactTables& tables = TablesOf(Argument(state));
    AskFor(
        state, KeysOf(Argument(state), TopicOf),
        [&](const std::string& key)
        {
            return tables.registry.Find(key) != nullptr &&
                   tables.subscriptions.Resolve(CLIENT_QUEUE, key).applications.size() == 1;
        });
    state.counters["bytes_per_route"] = tables.registryBytes + tables.subscriptionBytes;
}

/** Asks subscriptions that have this topic for each number below `count`. */
void ResolveAmong(
    benchmark::State& state, std::size_t count, const std::function<std::string(std::size_t number)>& topicOf,
    std::string (*keyOf)(std::size_t))
{
    Subscriptions subscriptions(CLIENT_QUEUE, PRIORITY_QUEUE, true);
    const std::size_t before = HeapBytes();
    for (std::size_t number = 0; number < count; ++number)
    {
        subscriptions.AddTopic("application", topicOf(number), CLIENT_QUEUE);
    }
    state.counters["bytes_per_route"] = PerRoute(HeapBytes() - before, count);
    AskFor(
        state, KeysOf(count, keyOf),
        [&](const std::string& key) { return subscriptions.Resolve(CLIENT_QUEUE, key).applications.size() == 1; });
}

std::string HashPattern(std::size_t number)
{
    return "plant." + std::to_string(number) + ".#";
}

std::string StarPattern(std::size_t number)
{
    return "plant.*." + TopicOf(number);
}

std::string KeyBelowPlant(std::size_t number)
{
    return "plant." + std::to_string(number) + "." + TopicOf(number);
}

void ResolveHash(benchmark::State& state)
{
    ResolveAmong(state, Argument(state), HashPattern, KeyBelowPlant);
}

void ResolveStar(benchmark::State& state)
{
    ResolveAmong(state, Argument(state), StarPattern, KeyBelowPlant);
}

void ResolveInner(benchmark::State& state)
{
    // The first word meets a '*', the second a word and a '*', the others a '#': many paths to be followed at once.
    ResolveAmong(
        state, Argument(state),
        [](std::size_t number)
        {
            const std::string middle = number % 2 == 0 ? "*" : "line";
            return "*." + middle + ".#." + std::to_string(number);
        },
        [](std::size_t number) { return "plant.line.cell." + std::to_string(number); });
}

void ResolveShare(benchmark::State& state)
{
    const std::size_t share = Argument(state);
    ResolveAmong(
        state, 10000,
        [share](std::size_t number)
        {
            if (number * 61 % 100 >= share)
            {
                return KeyBelowPlant(number);
            }
            return number % 2 == 0 ? StarPattern(number) : HashPattern(number);
        },
        KeyBelowPlant);
}

void ResolveForMany(benchmark::State& state)
{
    const std::size_t count = Argument(state);
    Subscriptions subscriptions(CLIENT_QUEUE, PRIORITY_QUEUE, true);
    for (std::size_t number = 0; number < count; ++number)
    {
        subscriptions.AddTopic("application-" + std::to_string(number), "alerts.all", CLIENT_QUEUE);
    }
    AskFor(
        state, {"alerts.all"},
        [&](const std::string& key) { return subscriptions.Resolve(CLIENT_QUEUE, key).applications.size() == count; });
}

BENCHMARK(FindRoute)->Arg(10)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(ResolveExact)->Arg(10)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(FindAndResolve)->Arg(10)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(ResolveStar)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(ResolveHash)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(ResolveInner)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(ResolveShare)->Arg(0)->Arg(1)->Arg(10)->Arg(50)->Arg(100);
BENCHMARK(ResolveForMany)->Arg(1)->Arg(10)->Arg(50)->Arg(500);

} // namespace

// What a configuration costs the agent itself: the whole way from the message's body to registry, subscriptions,
// topology and journal, with a broker that answers "done" at once. Beside it the journal alone.
//
//   ConfigureAnew       an application that had nothing gets so many topics
//   ConfigureOthers     every topic is replaced by another one
//   ConfigureOnePercent one topic in a hundred is replaced
//   ConfigureTheSame    the same configuration again
//   ConfigureAnewWithoutJournal  as ConfigureAnew, with a journal that cannot be written
//   JournalEach         as many changes, each in a transaction of its own, as the topology notes unbinds
//   JournalAtOnce       as many in one transaction, as it notes intents and the binds that are done
//
// items_per_second counts topics (or changes); `bytes_per_topic` is what the allocator has handed out for the
// configuration in force, journal included.

#include "GrowthTables.h"
#include "agent/AgentMsgHandler.h"
#include "apps/LocalAppRegistry.h"
#include "common/MessageTypes.h"
#include "fakes/TopologyClient.h"
#include "logging/Logger.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace
{

using namespace VtxQel;

const std::string APPLICATION = "application";

/** A broker that does at once whatever it is asked. */
class ObedientBroker : public TopologyPort
{
  public:
    std::vector<RequestResult> Bind(const std::vector<Binding>& bindings) override
    {
        return std::vector<RequestResult>(bindings.size(), {Answer::ok, 0, ""});
    }
    RequestResult Unbind(const Binding&) override { return {Answer::ok, 0, ""}; }
    RequestResult Consume(const std::string&) override { return {Answer::ok, 0, ""}; }
    RequestResult StopConsuming(const std::string&) override { return {Answer::ok, 0, ""}; }
};

class ConfigurationMessage : public RmqMessage
{
  public:
    explicit ConfigurationMessage(std::string body) : m_body(std::move(body))
    {
        m_properties->type = APP_INIT_CONFIG_TYPE;
    }

    boost::shared_ptr<RmqBody> GetBody() const override
    {
        return boost::make_shared<RmqBody>(
            RmqBody{m_body.size(), reinterpret_cast<const std::uint8_t*>(m_body.data())});
    }
    std::size_t GetBodyLength() const override { return m_body.size(); }
    const std::string& GetAppName() const override { return APPLICATION; }
    boost::shared_ptr<RmqProperties> GetProperties() const override { return m_properties; }
    std::string ToString() const override { return {}; }

  private:
    const std::string m_body;
    const boost::shared_ptr<RmqProperties> m_properties = boost::make_shared<RmqProperties>();
};

using Message = boost::shared_ptr<RmqMessage>;

/** The configuration of the topics with the numbers from `first` on. */
Message TopicsFrom(std::size_t first, std::size_t count)
{
    brelix::vtx::messaging::appinit::AppInitConfigMsg config;
    for (std::size_t number = first; number < first + count; ++number)
    {
        config.add_topic_info()->set_topic(TopicOf(number));
    }
    return boost::make_shared<ConfigurationMessage>(config.SerializeAsString());
}

/** A folder below that for temporary files, gone with the object. */
class Folder
{
  public:
    Folder()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "qel-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
        {
            throw std::runtime_error("no folder for the journal");
        }
        m_path = pattern;
    }
    ~Folder() { std::filesystem::remove_all(m_path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string File(const std::string& name) const { return (m_path / name).string(); }

  private:
    std::filesystem::path m_path;
};

boost::shared_ptr<RmqInfo> Names()
{
    auto info = boost::make_shared<RmqInfo>();
    info->exchange = "qel";
    info->clientQueue = "qel.client.bench";
    info->priorityQueue = "qel.priority.bench";
    info->deadLetterQueue = "qel.client.bench.dead";
    return info;
}

/** The agent's parts that a configuration meets. */
class Scene
{
  public:
    /** @param journal the file's name; one in a folder that does not exist is a journal that cannot be written */
    explicit Scene(const std::string& journal) : m_journal(m_folder.File(journal))
    {
        vtx::Logger::logLevel = 1;
        m_appRegistry->Reload({APPLICATION});
        for (const std::string& queue : {m_info->clientQueue, m_info->priorityQueue})
        {
            m_registry->Add(queue, boost::make_shared<RoutingRegistryEntry>(m_handler, 0, channelPriorityNormal));
        }
    }

    void Configure(const Message& configuration)
    {
        // The dispatcher is none of this; what becomes of the message afterwards is the same for each.
        if (!m_handler->HandleSyncResponse(configuration))
        {
            throw std::runtime_error("the configuration was refused");
        }
    }
    std::size_t Bindings() const { return m_topology.Bindings().size(); }

  private:
    const Folder m_folder;
    ObedientBroker m_broker;
    const boost::shared_ptr<RmqInfo> m_info = Names();
    Journal m_journal;
    Topology m_topology{m_broker, m_journal, *m_info};
    Subscriptions m_subscriptions{m_info->clientQueue, m_info->priorityQueue, true};
    ConfigurationLog m_log{m_folder.File("configurations.json")};
    const boost::shared_ptr<RoutingRegistry> m_registry = boost::make_shared<RoutingRegistry>();
    const boost::shared_ptr<LocalAppRegistry> m_appRegistry = boost::make_shared<LocalAppRegistry>();
    const boost::shared_ptr<RmqClient> m_client = boost::make_shared<Fakes::TopologyClient>(m_topology);
    const boost::shared_ptr<AgentMsgHandler> m_handler = boost::make_shared<AgentMsgHandler>(
        HandlerCollaborators{m_registry, m_appRegistry, {}, m_client, m_info, {}},
        ConfigurationKeepers{m_topology, m_subscriptions, m_log},
        ConfigurationEvents{[](const std::string&) {}, [] {}});
};

/** Carries out `first` and `second` in turns; only `second` is timed when the first one is there to clear up. */
void InTurns(benchmark::State& state, Scene& scene, const Message& first, const Message& second, bool timeFirst)
{
    const auto topics = static_cast<std::size_t>(state.range(0));
    bool atFirst = false;
    for ([[maybe_unused]] auto iteration : state)
    {
        if (!timeFirst)
        {
            state.PauseTiming();
            scene.Configure(first);
            state.ResumeTiming();
        }
        scene.Configure(timeFirst && std::exchange(atFirst, !atFirst) ? first : second);
    }
    if (scene.Bindings() != topics)
    {
        state.SkipWithError("the topology does not have the topics of the last configuration");
    }
    const auto configured = static_cast<double>(state.iterations()) * static_cast<double>(topics);
    state.SetItemsProcessed(static_cast<std::int64_t>(configured));
}

void Anew(benchmark::State& state, const std::string& journal)
{
    const auto topics = static_cast<std::size_t>(state.range(0));
    const Message configuration = TopicsFrom(0, topics);
    const std::size_t before = HeapBytes();
    Scene scene(journal);
    InTurns(state, scene, TopicsFrom(0, 0), configuration, false);
    state.counters["bytes_per_topic"] = PerRoute(HeapBytes() - before, topics);
}

void ConfigureAnew(benchmark::State& state)
{
    Anew(state, "journal.sqlite");
}

void ConfigureAnewWithoutJournal(benchmark::State& state)
{
    Anew(state, "missing/journal.sqlite");
}

void ConfigureShifted(benchmark::State& state, std::size_t shift)
{
    const auto topics = static_cast<std::size_t>(state.range(0));
    Scene scene("journal.sqlite");
    const Message first = TopicsFrom(0, topics);
    scene.Configure(first);
    InTurns(state, scene, first, TopicsFrom(shift, topics), true);
}

void ConfigureOthers(benchmark::State& state)
{
    ConfigureShifted(state, static_cast<std::size_t>(state.range(0)));
}

void ConfigureOnePercent(benchmark::State& state)
{
    ConfigureShifted(state, static_cast<std::size_t>(state.range(0)) / 100);
}

void ConfigureTheSame(benchmark::State& state)
{
    ConfigureShifted(state, 0);
}

/** As many changes as the argument says, to a journal that has them already. */
std::vector<JournalChange> Changes(std::size_t count)
{
    std::vector<JournalChange> changes;
    for (std::size_t number = 0; number < count; ++number)
    {
        changes.push_back({{APPLICATION, RouteKind::topic, TopicOf(number), "qel.client.bench", RouteState::intended}});
    }
    return changes;
}

void WriteJournal(benchmark::State& state, bool atOnce)
{
    const Folder folder;
    Journal journal(folder.File("journal.sqlite"));
    std::vector<JournalChange> changes = Changes(static_cast<std::size_t>(state.range(0)));
    journal.Write(changes);
    bool written = true;
    for ([[maybe_unused]] auto iteration : state)
    {
        for (JournalChange& change : changes)
        {
            change.record.state =
                change.record.state == RouteState::intended ? RouteState::inForce : RouteState::intended;
            written = (atOnce || journal.Write({change})) && written;
        }
        written = (!atOnce || journal.Write(changes)) && written;
    }
    if (!written || journal.Load().size() != changes.size())
    {
        state.SkipWithError("the journal was not written");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void JournalEach(benchmark::State& state)
{
    WriteJournal(state, false);
}

void JournalAtOnce(benchmark::State& state)
{
    WriteJournal(state, true);
}

void Sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(10)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
}

BENCHMARK(ConfigureAnew)->Apply(Sizes);
BENCHMARK(ConfigureAnewWithoutJournal)->Apply(Sizes);
BENCHMARK(ConfigureOthers)->Apply(Sizes);
BENCHMARK(ConfigureOnePercent)->Apply(Sizes);
BENCHMARK(ConfigureTheSame)->Apply(Sizes);
BENCHMARK(JournalEach)->Apply(Sizes);
BENCHMARK(JournalAtOnce)->Apply(Sizes);

} // namespace

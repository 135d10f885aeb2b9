#include "PlaneCommand.h"

#include "ConfigurationFolder.h"
#include "Plane.h"
#include "qel/StopOnSignals.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace VtxQel
{

namespace
{

constexpr const char* defaultQueue = "qel.plane";
constexpr std::chrono::milliseconds pauseBeforeSendingAgain{1000};

/** What other threads want to have done by the one that waits for the folder. */
class Errands
{
  public:
    explicit Errands(ConfigurationFolder& folder) : m_folder(folder) {}

    void Add(std::function<void()> errand)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_errands.push_back(std::move(errand));
        }
        m_folder.Wake();
    }

    void Run()
    {
        std::vector<std::function<void()>> errands;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            errands.swap(m_errands);
        }
        for (const std::function<void()>& errand : errands)
        {
            errand();
        }
    }

  private:
    ConfigurationFolder& m_folder;
    std::mutex m_mutex;
    std::vector<std::function<void()>> m_errands;
};

} // namespace

CLI::App* PlaneCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("plane", "Be a management plane: configure agents from files");
    verb->add_option("directory", m_directory, "Watched for AGENT/APP.json")->required()->type_name("DIR");
    CLI::Option* exchange =
        verb->add_option("--exchange", m_exchange, "The agents' management.exchange (default: the default exchange)")
            ->type_name("NAME");
    verb->add_option("--routing-key", m_routingKey, "Their management.routing_key (default qel.plane)")
        ->type_name("KEY");
    verb->add_option("--queue", m_queue, "With --exchange: what the requests' queue is called (default qel.plane)")
        ->needs(exchange)
        ->type_name("QUEUE");
    return verb;
}

void PlaneCommand::Run(const GlobalOptions& options)
{
    ConfigurationFolder folder(m_directory);
    const qel::StopOnSignals signals(
        [this, &folder]
        {
            m_stop = true;
            folder.Wake();
        });
    Errands errands(folder);
    ManagementSession session(options, "plane");
    Plane plane(
        m_directory, session.User(),
        [&session, &errands](OutgoingMessage message, PublishCompletion completion)
        {
            session.PublishAsync(
                std::move(message),
                [&errands, completion = std::move(completion)](PublishResult result, const std::string& why)
                { errands.Add([completion, result, why] { completion(result, why); }); });
        },
        std::cout, options.json);

    RequestService service = Service();
    const std::string queue = service.topology.ownQueues.front().name;
    service.onRequest = [&errands, &plane](RmqProperties&& request)
    { errands.Add([&plane, request = std::move(request)] { plane.Answer(request); }); };
    service.onTrouble = [&errands, &plane](const std::string& why)
    { errands.Add([&plane, why] { plane.Say("trouble", why); }); };
    service.onRestored = [&errands, &plane, queue]
    { errands.Add([&plane, queue] { plane.Say("ready", "requests are taken from " + queue); }); };
    session.Serve(std::move(service));
    while (!m_stop)
    {
        errands.Run();
        for (const ConfigurationChange& change : folder.Take())
        {
            plane.Take(change);
        }
        const auto pause = plane.HasUnsent() ? std::optional(pauseBeforeSendingAgain) : std::nullopt;
        if (!folder.Wait(pause))
        {
            plane.SendAgain();
        }
    }
}

// The queue goes with us: agents hear from the broker that nobody answers, and ask again.
RequestService PlaneCommand::Service() const
{
    const std::string routingKey = m_routingKey.empty() ? defaultQueue : m_routingKey;
    RequestService service;
    QueueSpec queue;
    // The default exchange delivers to the queue of the routing key's name.
    queue.name = m_exchange.empty() ? routingKey : m_queue.empty() ? defaultQueue : m_queue;
    queue.durable = false;
    queue.exclusive = true;
    queue.autoDelete = true;
    queue.prefetch = 100;
    service.topology.ownQueues.push_back(queue);
    if (!m_exchange.empty())
    {
        service.topology.bindings.push_back({queue.name, m_exchange, routingKey});
    }
    service.cure = std::string("the queue must not be there already, ") +
                   (m_exchange.empty() ? "" : "the exchange has to be, ") +
                   "and the user needs configure, write and read permission for " + queue.name;
    return service;
}

} // namespace VtxQel

#include "PlaneServer.h"

#include "Plane.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace VtxQel
{

namespace
{

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

PlaneServer::PlaneServer(std::string directory, PlaneAddress address)
    : m_directory(std::move(directory)), m_address(std::move(address)), m_folder(m_directory)
{
}

void PlaneServer::Stop()
{
    m_stop = true;
    m_folder.Wake();
}

void PlaneServer::Run(const GlobalOptions& options, std::ostream& out)
{
    Errands errands(m_folder);
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
        out, options.json);

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
        for (const ConfigurationChange& change : m_folder.Take())
        {
            plane.Take(change);
        }
        const auto pause = plane.HasUnsent() ? std::optional(pauseBeforeSendingAgain) : std::nullopt;
        if (!m_folder.Wait(pause))
        {
            plane.SendAgain();
        }
    }
}

// The queue goes with us: agents hear from the broker that nobody answers, and ask again.
RequestService PlaneServer::Service() const
{
    RequestService service;
    QueueSpec queue;
    // The default exchange delivers to the queue of the routing key's name.
    queue.name = m_address.exchange.empty() ? m_address.routingKey : m_address.queue;
    queue.durable = false;
    queue.exclusive = true;
    queue.autoDelete = true;
    queue.prefetch = 100;
    service.topology.ownQueues.push_back(queue);
    if (!m_address.exchange.empty())
    {
        service.topology.bindings.push_back({queue.name, m_address.exchange, m_address.routingKey});
    }
    service.cure = std::string("the queue must not be there already, ") +
                   (m_address.exchange.empty() ? "" : "the exchange has to be, ") +
                   "and the user needs configure, write and read permission for " + queue.name;
    return service;
}

} // namespace VtxQel

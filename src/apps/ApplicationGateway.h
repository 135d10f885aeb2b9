#pragma once

#include "apps/ApplicationServer.h"
#include "apps/ApplicationSet.h"
#include "apps/SocketAcceptor.h"
#include "apps/Subscriptions.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace VtxQel
{

/** What the gateway works with. The referred objects outlive it. */
struct GatewayContext
{
    /** The sockets are made in its folder `apps`. */
    std::string runtimeDirectory;
    std::string agentVersion;
    ApplicationSet& applications;
    Subscriptions& subscriptions;
    Publisher& publisher;
    Timers& timers;
    ConfigurationAsker askForConfiguration;
};

/**
 * ApplicationGateway is where local applications connect: a Unix socket for each, `<runtime directory>/apps/NAME.sock`,
 * with a gRPC server behind it that starts at the first connection.
 *
 * One thread accepts connections; gRPC's threads do the rest. Reload() and Stop() are called from one thread at a time.
 * The observer that the constructor adds to the subscriptions refers to the gateway, which therefore outlives their
 * changes.
 */
class ApplicationGateway
{
  public:
    explicit ApplicationGateway(GatewayContext context);
    /** As Stop(0). */
    ~ApplicationGateway();
    ApplicationGateway(const ApplicationGateway&) = delete;
    ApplicationGateway& operator=(const ApplicationGateway&) = delete;

    /**
     * Opens and closes sockets so that exactly these applications, all in the application set, have one. Those that
     * stay keep their connections.
     * @return what went wrong, a line for each application that has no socket now.
     */
    std::vector<std::string> Reload(const std::vector<ApplicationSettings>& applications);

    /** Tells every attached instance. Any thread may call; does not block. */
    void BrokerChanged(BrokerState state);

    /**
     * Takes no more connections, hands out no more deliveries, waits within the budget for the verdicts of those in
     * flight and then ends every stream. Idempotent.
     */
    void Stop(std::chrono::milliseconds budget);

    /** Where an application connects. */
    std::string SocketPath(const std::string& application) const;

  private:
    struct Endpoint
    {
        boost::shared_ptr<SocketAcceptor> acceptor;
        boost::shared_ptr<ApplicationServer> server;
    };

    void MakeFolder() const;
    void Open(const ApplicationSettings& settings);
    void Close(Endpoint& endpoint);
    void OnChange(const SubscriptionChange& change);
    void OnIoThread(const std::function<void()>& task);
    bool IsAnythingInFlight() const;

    const GatewayContext m_context;
    std::atomic<BrokerState> m_broker{BrokerState::disconnected};
    boost::asio::io_context m_io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_work;
    std::mutex m_mutex;
    /** Guarded by m_mutex. */
    std::map<std::string, Endpoint> m_endpoints;
    bool m_stopped = false;
    std::thread m_thread;
};

} // namespace VtxQel

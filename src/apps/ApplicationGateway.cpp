#include "apps/ApplicationGateway.h"

#include "apps/AppsException.h"
#include "common/SFormat.h"
#include "logging/Log.h"

#include <boost/asio/post.hpp>
#include <boost/smart_ptr/make_shared.hpp>

#include <filesystem>
#include <future>
#include <set>
#include <system_error>

#include <pthread.h>

namespace VtxQel
{

namespace
{

constexpr std::chrono::milliseconds checkInterval{5};
/** How long ended streams may take to tell their peers so. */
constexpr std::chrono::milliseconds shutdownBudget{500};

} // namespace

ApplicationGateway::ApplicationGateway(GatewayContext context)
    : m_context(std::move(context)), m_work(boost::asio::make_work_guard(m_io)), m_thread([this] { m_io.run(); })
{
    pthread_setname_np(m_thread.native_handle(), "qel-apps-accept");
    m_context.subscriptions.Observe([this](const SubscriptionChange& change) { OnChange(change); });
}

ApplicationGateway::~ApplicationGateway()
{
    Stop(std::chrono::milliseconds(0));
    m_work.reset();
    m_thread.join();
}

std::vector<std::string> ApplicationGateway::Reload(const std::vector<ApplicationSettings>& applications)
{
    std::set<std::string> wanted;
    for (const ApplicationSettings& settings : applications)
    {
        wanted.insert(settings.name);
    }
    std::vector<Endpoint> gone;
    {
        const std::lock_guard lock(m_mutex);
        for (auto position = m_endpoints.begin(); position != m_endpoints.end();)
        {
            const auto current = position++;
            if (!wanted.contains(current->first))
            {
                gone.push_back(current->second);
                m_endpoints.erase(current);
            }
        }
    }
    for (Endpoint& endpoint : gone)
    {
        Close(endpoint);
    }
    std::vector<std::string> errors;
    for (const ApplicationSettings& settings : applications)
    {
        try
        {
            Open(settings);
        }
        catch (const AppsException& error)
        {
            errors.push_back(SFormat("application %s: %s", settings.name.c_str(), error.what()));
        }
    }
    return errors;
}

void ApplicationGateway::BrokerChanged(BrokerState state)
{
    if (m_broker.exchange(state) == state)
    {
        return;
    }
    std::vector<boost::shared_ptr<ApplicationServer>> servers;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& [name, endpoint] : m_endpoints)
        {
            servers.push_back(endpoint.server);
        }
    }
    for (const auto& server : servers)
    {
        server->BrokerChanged();
    }
}

void ApplicationGateway::Stop(std::chrono::milliseconds budget)
{
    const auto end = std::chrono::steady_clock::now() + budget;
    std::map<std::string, Endpoint> endpoints;
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopped)
        {
            return;
        }
        m_stopped = true;
        endpoints = m_endpoints;
    }
    for (const auto& [name, endpoint] : endpoints)
    {
        OnIoThread([&acceptor = *endpoint.acceptor] { acceptor.Close(); });
    }
    for (const auto& application : m_context.applications.All())
    {
        application->StopDelivering();
    }
    while (IsAnythingInFlight() && std::chrono::steady_clock::now() < end)
    {
        std::this_thread::sleep_for(checkInterval);
    }
    for (const auto& application : m_context.applications.All())
    {
        application->Stop("the agent is stopping");
    }
    for (const auto& [name, endpoint] : endpoints)
    {
        endpoint.server->Stop(shutdownBudget);
    }
}

std::string ApplicationGateway::SocketPath(const std::string& application) const
{
    return m_context.runtimeDirectory + "/apps/" + application + ".sock";
}

void ApplicationGateway::MakeFolder() const
{
    namespace fs = std::filesystem;
    const fs::path folder = m_context.runtimeDirectory + "/apps";
    std::error_code error;
    fs::create_directories(folder, error);
    if (!error)
    {
        const fs::perms passable = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                   fs::perms::others_read | fs::perms::others_exec;
        fs::permissions(folder, passable, error);
    }
    if (error)
    {
        throw AppsException(SFormat("folder %s: %s", folder.c_str(), error.message().c_str()));
    }
}

void ApplicationGateway::Open(const ApplicationSettings& settings)
{
    const auto application = m_context.applications.Find(settings.name);
    Endpoint endpoint;
    {
        const std::lock_guard lock(m_mutex);
        const auto known = m_endpoints.find(settings.name);
        if (m_stopped || !application)
        {
            return;
        }
        if (known != m_endpoints.end())
        {
            endpoint = known->second;
        }
    }
    if (endpoint.acceptor && endpoint.acceptor->Owner() == OwnerOf(settings))
    {
        return;
    }
    if (endpoint.acceptor)
    {
        OnIoThread([&acceptor = *endpoint.acceptor] { acceptor.Close(); });
    }
    MakeFolder();
    if (!endpoint.server)
    {
        endpoint.server = boost::make_shared<ApplicationServer>(ServiceContext{
            application, m_context.subscriptions, m_context.publisher, m_context.timers, m_context.agentVersion,
            m_broker, m_context.askForConfiguration});
    }
    endpoint.acceptor = boost::make_shared<SocketAcceptor>(
        m_io, SocketPath(settings.name), settings,
        [server = endpoint.server](int socket) { return server->Serve(socket); });
    OnIoThread([&acceptor = *endpoint.acceptor] { acceptor.Open(); });
    const std::lock_guard lock(m_mutex);
    m_endpoints[settings.name] = endpoint;
}

void ApplicationGateway::Close(Endpoint& endpoint)
{
    OnIoThread([&acceptor = *endpoint.acceptor] { acceptor.Close(); });
    endpoint.server->Stop(shutdownBudget);
}

void ApplicationGateway::OnChange(const SubscriptionChange& change)
{
    if (change.kind != SubscriptionChange::Kind::state)
    {
        return;
    }
    boost::shared_ptr<ApplicationServer> server;
    {
        const std::lock_guard lock(m_mutex);
        const auto known = m_endpoints.find(change.application);
        if (known != m_endpoints.end())
        {
            server = known->second.server;
        }
    }
    if (server)
    {
        server->ConfigurationChanged();
    }
}

/** Runs the task on the accepting thread and waits for its end. */
void ApplicationGateway::OnIoThread(const std::function<void()>& task)
{
    std::promise<void> done;
    boost::asio::post(
        m_io,
        [&task, &done]
        {
            task();
            done.set_value();
        });
    done.get_future().wait();
}

bool ApplicationGateway::IsAnythingInFlight() const
{
    for (const auto& application : m_context.applications.All())
    {
        if (application->Snapshot().inFlight != 0)
        {
            return true;
        }
    }
    return false;
}

} // namespace VtxQel

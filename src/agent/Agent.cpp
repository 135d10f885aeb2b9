#include "agent/Agent.h"

#include "agent/ServiceNotifier.h"
#include "agent/SettingsText.h"
#include "common/QelException.h"
#include "logging/Log.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <filesystem>
#include <utility>

#include <unistd.h>

namespace VtxQel
{

namespace
{

/** Together less than the 5 s that a stop may take. */
constexpr std::chrono::milliseconds VERDICT_BUDGET{2500};
constexpr std::chrono::milliseconds FLUSH_BUDGET{1500};
constexpr std::chrono::milliseconds SLOW_AFTER{250};
/** More than one request of a handler may take (30 s). */
constexpr std::chrono::seconds LANE_PATIENCE{60};
constexpr std::chrono::seconds FIRST_ORPHAN_DELAY{5};
constexpr std::chrono::seconds LONGEST_ORPHAN_DELAY{300};

/** The route type of the agent's own queues: a clean-up neither unbinds nor cancels them. */
constexpr int OWN_ROUTE = 0;

/** What a reload takes over. */
constexpr std::array<const char*, 6> RELOADED_KEYS{"applications.directory", "broker.password_file",
                                                   "broker.tls.ca_file",     "broker.tls.certificate_file",
                                                   "broker.tls.key_file",    "log.level"};

bool Contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string FileIn(const std::string& directory, const char* name)
{
    return (std::filesystem::path(directory) / name).string();
}

std::set<std::string> NamesOf(const std::vector<ApplicationSettings>& applications)
{
    std::set<std::string> names;
    for (const ApplicationSettings& application : applications)
    {
        names.insert(application.name);
    }
    return names;
}

} // namespace

Agent::Agent(AgentConfig config, std::vector<ApplicationSettings> applications)
    : m_config(std::move(config)), m_stateLock(m_config.stateDirectory), m_runtimeLock(m_config.runtimeDirectory),
      m_timers("qel-agent-timer"), m_chores("qel-chores"), m_memory(m_timers),
      m_journal(FileIn(m_config.stateDirectory, "journal.sqlite")),
      m_configurations(FileIn(m_config.stateDirectory, "configurations.json")),
      m_routingRegistry(boost::make_shared<RoutingRegistry>()), m_appRegistry(boost::make_shared<LocalAppRegistry>()),
      m_subscriptions(
          m_config.broker.names.clientQueue, m_config.broker.names.priorityQueue,
          m_config.broker.names.exchangeType == "topic"),
      m_client(boost::make_shared<BrokerClient>(
          m_config.broker, m_routingRegistry, m_journal,
          [this](const std::string& queue, const std::string& routingKey, const std::string& appId)
          { return m_dispatcher->ApplicationFor(queue, routingKey, appId); },
          BrokerEvents{
              [this] { OnDisconnected(); }, [this] { m_applications.DropUnsent(); }, [this] { OnRestored(); },
              [this] { return m_report.PingReply(); }, [this](bool blocked) { OnBlocked(blocked); }})),
      m_budget(m_config.broker.prefetch, m_config.broker.maxHeldBytes / 2), m_parking(*m_client),
      m_applications(ApplicationContext{
          m_budget, m_parking, m_applicationTimers, SLOW_AFTER,
          [this](const std::string& application) { m_requests.Ask(application); }}),
      m_dispatcher(boost::make_shared<LocalAppDispatcher>(m_applications, m_subscriptions)),
      m_gateway(GatewayContext{
          m_config.runtimeDirectory, QEL_VERSION, m_applications, m_subscriptions, m_client->Publishing(),
          m_applicationTimers,
          [this](const std::string& application, PublishCompletion completion)
          { m_requests.Ask(application, std::move(completion)); }}),
      m_requests(
          m_config.management, m_client->Publishing(), m_timers,
          [this](const std::string& application) { return LacksConfiguration(application); }),
      m_info(boost::make_shared<RmqInfo>(m_config.broker.names)),
      m_frontEnd(boost::make_shared<BrokerFrontEnd>([this] { MoveToNextUrl(); }, m_timers, m_config.reassignWithin)),
      m_endpointController(boost::make_shared<EndpointController>(m_frontEnd)),
      m_handler(boost::make_shared<AgentMsgHandler>(
          HandlerCollaborators{m_routingRegistry, m_appRegistry, m_dispatcher, m_client, m_info, m_endpointController},
          ConfigurationKeepers{m_client->Routes(), m_subscriptions, m_configurations},
          ConfigurationEvents{
              [this](const std::string& application) { m_requests.AskLater(application); },
              [this] { m_chores.Post([this] { RemoveOrphans(FIRST_ORPHAN_DELAY); }); }})),
      m_report(
          m_config.id, m_config.broker,
          ReportSources{
              *m_client, m_client->Routes(), m_applications, m_subscriptions, m_configurations, *m_dispatcher}),
      m_admin(m_report)
{
    m_subscriptions.Observe([this](const SubscriptionChange& change) { OnSubscriptionChange(change); });
    m_applicationNames = NamesOf(applications);
    m_appRegistry->Reload({m_applicationNames.begin(), m_applicationNames.end()});
    m_applications.Reload(applications);
    AddOwnRoutes();
    m_handler->Restore(
        m_client->Routes().Restore([this](const std::string& name) { return m_applicationNames.contains(name); }));
    const std::vector<std::string> problems = m_gateway.Reload(applications);
    for (const std::string& problem : problems)
    {
        QEL_LOG(vtx::LevelWarning, "%s", problem.c_str());
    }
}

Agent::~Agent()
{
    Stop();
}

void Agent::Start()
{
    m_started = true;
    ServeAdmin();
    m_client->Start();
    m_memory.Start();
    const std::chrono::microseconds interval = ServiceNotifier::WatchdogInterval();
    if (interval.count() > 0)
    {
        WatchThreads(interval);
    }
    ServiceNotifier::Ready();
}

void Agent::Reload(const AgentConfig& config, const std::vector<ApplicationSettings>& applications)
{
    ServiceNotifier::Reloading();
    vtx::Logger::logLevel = config.logLevel;
    m_client->ReloadTls(config.broker.link.tls);
    m_client->UsePassword(config.broker.link.password);
    NameWhatNeedsRestart(config);
    const std::set<std::string> names = NamesOf(applications);
    m_appRegistry->Reload({names.begin(), names.end()});
    m_applications.Reload(applications);
    for (const std::string& problem : m_gateway.Reload(applications))
    {
        QEL_LOG(vtx::LevelWarning, "%s", problem.c_str());
    }
    for (const std::string& name : m_applicationNames)
    {
        if (!names.contains(name))
        {
            m_chores.Post(
                [this, name]
                {
                    if (m_appRegistry->Lookup(name))
                    {
                        // A later reload has brought it back.
                        return;
                    }
                    m_handler->Forget(name);
                    RemoveOrphans(FIRST_ORPHAN_DELAY);
                });
        }
    }
    m_applicationNames = names;
    QEL_LOG(
        vtx::LevelStatus, "configuration read again: log level %d, %zu applications", config.logLevel, names.size());
    ServiceNotifier::Ready();
}

void Agent::NameWhatNeedsRestart(const AgentConfig& config) const
{
    std::vector<std::string> changed = ChangedKeys(m_config.settings, config.settings);
    if (config.broker.link.urls != m_config.broker.link.urls && !Contains(changed, "broker.urls"))
    {
        // The passwords, which are masked.
        changed.emplace_back("broker.urls");
    }
    for (const std::string& key : changed)
    {
        if (std::find(RELOADED_KEYS.begin(), RELOADED_KEYS.end(), key) == RELOADED_KEYS.end())
        {
            QEL_LOG(
                vtx::LevelWarning, "%s has changed in the configuration, which counts from the next start only",
                key.c_str());
        }
    }
}

void Agent::Stop()
{
    if (!std::exchange(m_started, false))
    {
        return;
    }
    ServiceNotifier::Stopping();
    m_report.SetStopping();
    QEL_LOG(vtx::LevelStatus, "stopping: finishing what is in hand");
    m_client->StopConsuming();
    m_gateway.Stop(VERDICT_BUDGET);
    m_dispatcher->Stop();
    m_applicationTimers.Stop();
    m_client->Stop(FLUSH_BUDGET);
    m_chores.Stop();
    m_timers.Stop();
    m_admin.Stop();
    QEL_LOG(vtx::LevelStatus, "stopped");
}

void Agent::ServeAdmin()
{
    const std::string path = FileIn(m_config.runtimeDirectory, "admin.sock");
    m_adminSocket = std::make_unique<ListeningSocket>(path, SocketOwner{::geteuid(), ::getegid()});
    m_admin.ListenOn(m_adminSocket->Descriptor());
    if (!m_config.adminListen.empty())
    {
        m_admin.ListenOn(m_config.adminListen);
        QEL_LOG(
            vtx::LevelStatus, "the admin endpoint listens on TCP port %u of the loopback interface",
            static_cast<unsigned>(m_admin.Port()));
    }
    m_admin.Start();
}

void Agent::AddOwnRoutes()
{
    m_routingRegistry->Add(
        m_info->clientQueue,
        boost::make_shared<RoutingRegistryEntry>(m_handler, OWN_ROUTE, static_cast<channelPriority_e>(0)));
    m_routingRegistry->Add(
        m_info->priorityQueue,
        boost::make_shared<RoutingRegistryEntry>(m_handler, OWN_ROUTE, static_cast<channelPriority_e>(1)));
}

void Agent::OnRestored()
{
    if (!m_ready.exchange(true))
    {
        QEL_LOG(
            vtx::LevelStatus, "qel-agent is ready: consuming %s and %s", m_info->clientQueue.c_str(),
            m_info->priorityQueue.c_str());
    }
    ServiceNotifier::Status("consuming " + m_info->clientQueue + " and " + m_info->priorityQueue);
    m_connected = true;
    TellBrokerState();
    m_applications.Reconnected();
    m_chores.Post([this] { RemoveOrphans(FIRST_ORPHAN_DELAY); });
}

void Agent::OnDisconnected()
{
    ServiceNotifier::Status("not connected to the broker, trying again");
    m_applications.DropUnsent();
    m_connected = false;
    TellBrokerState();
}

void Agent::OnBlocked(bool blocked)
{
    m_blocked = blocked;
    TellBrokerState();
}

void Agent::TellBrokerState()
{
    const BrokerState whileConnected = m_blocked ? BrokerState::blocked : BrokerState::connected;
    m_gateway.BrokerChanged(m_connected ? whileConnected : BrokerState::disconnected);
}

void Agent::RemoveOrphans(std::chrono::seconds retryAfter)
{
    if (!m_client->Routes().RemoveOrphans() && !m_orphansDue)
    {
        m_orphansDue = true;
        m_chores.After(
            retryAfter,
            [this, retryAfter]
            {
                m_orphansDue = false;
                RemoveOrphans(std::min(2 * retryAfter, LONGEST_ORPHAN_DELAY));
            });
    }
}

void Agent::MoveToNextUrl()
{
    const std::size_t next = (m_client->Status().urlIndex + 1) % m_config.broker.link.urls.size();
    m_client->MoveTo(next);
}

bool Agent::LacksConfiguration(const std::string& application) const
{
    const ConfigurationState state = m_subscriptions.Status(application).state;
    return m_applications.Find(application) != nullptr &&
           (state == ConfigurationState::missing || state == ConfigurationState::failed);
}

void Agent::OnSubscriptionChange(const SubscriptionChange& change)
{
    if (change.kind == SubscriptionChange::Kind::state &&
        m_subscriptions.Status(change.application).state == ConfigurationState::applied)
    {
        m_requests.Satisfied(change.application);
    }
}

void Agent::WatchThreads(std::chrono::microseconds interval)
{
    std::vector<WatchedThread> threads{{"link", &m_linkProgress, interval / 2}};
    for (const auto& [kind, name] :
         {std::pair(LaneKind::control, "control"),
          {LaneKind::configuration, "configuration"},
          {LaneKind::priority, "priority"},
          {LaneKind::normal, "normal"}})
    {
        threads.push_back({std::string("lane ") + name, &m_client->ProgressOf(kind), LANE_PATIENCE});
    }
    m_linkProgress.Rest(false);
    m_watchdog = std::make_unique<Watchdog>(std::move(threads));
    m_timers.Post([this, interval] { FeedWatchdog(interval); });
}

void Agent::FeedWatchdog(std::chrono::microseconds interval)
{
    const std::vector<std::string> stuck = m_watchdog->Stuck(std::chrono::steady_clock::now());
    for (const std::string& name : stuck)
    {
        QEL_LOG_ERROR("WATCHDOG", "thread %s does not get on", name.c_str());
    }
    if (stuck.empty())
    {
        ServiceNotifier::Alive();
    }
    m_client->PostToLink([this] { m_linkProgress.Step(); });
    m_timers.After(interval / 4, [this, interval] { FeedWatchdog(interval); });
}

} // namespace VtxQel

#include "agent/Agent.h"
#include "agent/AgentConfig.h"
#include "agent/LogOutput.h"
#include "agent/MemoryTrimmer.h"
#include "agent/SettingsText.h"
#include "apps/DropIns.h"
#include "common/Printable.h"
#include "logging/Log.h"

#include <CLI/CLI.hpp>

#include <absl/synchronization/mutex.h>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <unistd.h>

namespace
{

using namespace VtxQel;

/** sysexits.h: the configuration is wrong. The unit does not start the agent again for it. */
constexpr int EXIT_CONFIGURATION = 78;

/** The configuration and its drop-ins, read together. */
struct Everything
{
    AgentConfig config;
    DropIns applications;
};

/** An instance that may have more without a verdict than the broker sends ahead never does. */
void WarnOfWindows(Everything& everything)
{
    for (const ApplicationSettings& application : everything.applications.applications)
    {
        if (application.window > everything.config.broker.prefetch)
        {
            everything.config.warnings.push_back(
                "the window of " + application.name + " (" + std::to_string(application.window) +
                ") is more than broker.prefetch (" + std::to_string(everything.config.broker.prefetch) +
                "), which is the most that can be on its way");
        }
    }
}

Everything Load(const std::string& file)
{
    Everything everything{LoadAgentConfig(file), {}};
    everything.applications = LoadDropIns(everything.config.applicationsDirectory);
    WarnOfWindows(everything);
    return everything;
}

int Show(const std::string& file, const std::string& application, bool effective)
{
    const Everything everything = Load(file);
    if (application.empty())
    {
        std::printf("%s", SettingsText(everything.config.settings, effective).c_str());
        return 0;
    }
    const auto settings = everything.applications.settings.find(application);
    if (settings == everything.applications.settings.end())
    {
        throw ConfigError(
            everything.config.applicationsDirectory + " has no sound drop-in of an application " +
            Printable(application) + ": qel-agent check says what is wrong");
    }
    std::printf("%s", SettingsText(settings->second, effective).c_str());
    return 0;
}

int Check(const std::string& file)
{
    Everything everything = Load(file);
    CheckOwners(everything.applications);
    for (const std::string& warning : everything.config.warnings)
    {
        std::printf("warning: %s\n", warning.c_str());
    }
    for (const std::string& error : everything.applications.problems)
    {
        std::fprintf(stderr, "%s\n", error.c_str());
    }
    if (!everything.applications.problems.empty())
    {
        return EXIT_CONFIGURATION;
    }
    std::printf("%s is sound: %zu applications\n", file.c_str(), everything.applications.applications.size());
    return 0;
}

void Report(const Everything& everything)
{
    for (const std::string& warning : everything.config.warnings)
    {
        QEL_LOG(vtx::LevelWarning, "%s", warning.c_str());
    }
    for (const std::string& error : everything.applications.problems)
    {
        QEL_LOG(vtx::LevelWarning, "%s; this application is left out", error.c_str());
    }
}

/** The signals that the main thread waits for; blocked in every thread. */
sigset_t AwaitedSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    return signals;
}

/** A second request to stop ends the process at once; the broker delivers again what was in hand. */
void StopAtOnceNextTime(const sigset_t& signals)
{
    struct sigaction atOnce = {};
    atOnce.sa_handler = [](int) { ::_exit(1); };
    ::sigaction(SIGTERM, &atOnce, nullptr);
    ::sigaction(SIGINT, &atOnce, nullptr);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void Reload(Agent& agent, const std::string& file)
{
    try
    {
        Everything everything = Load(file);
        CheckOwners(everything.applications);
        if (!everything.applications.problems.empty())
        {
            throw ConfigError(everything.applications.problems.front());
        }
        Report(everything);
        agent.Reload(everything.config, everything.applications.applications);
    }
    catch (const ConfigError& error)
    {
        QEL_LOG(vtx::LevelWarning, "the configuration stays as it was: %s", error.what());
    }
}

int Run(const std::string& file)
{
    TuneAllocator();
    // Debian builds Abseil with the checks of a debug build: without this, each lock that gRPC takes would also take
    // one global lock, to record the order of locks.
    absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
    const sigset_t signals = AwaitedSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    const Everything everything = Load(file);
    vtx::Logger::logLevel = everything.config.logLevel;
    StartLogOutput(everything.config.logFormat);
    QEL_LOG(vtx::LevelStatus, "qel-agent %s starts as %s", QEL_VERSION, everything.config.id.c_str());
    Report(everything);

    Agent agent(everything.config, everything.applications.applications);
    agent.Start();
    int signal = 0;
    while (sigwait(&signals, &signal) == 0 && signal == SIGHUP)
    {
        Reload(agent, file);
    }
    StopAtOnceNextTime(signals);
    agent.Stop();
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("qel-agent: keeps this host's applications connected to RabbitMQ");
    app.set_version_flag("--version", std::string("qel-agent ") + QEL_VERSION);
    app.require_subcommand(1);
    std::string file = "/etc/qel/qel.toml";
    CLI::App* run = app.add_subcommand("run", "Run the agent until SIGTERM");
    CLI::App* check = app.add_subcommand("check", "Say what is wrong with the configuration and end");
    CLI::App* config = app.add_subcommand("config", "Look at the configuration");
    config->require_subcommand(1);
    CLI::App* show = config->add_subcommand("show", "Print the configuration without secrets and end");
    bool effective = false;
    std::string application;
    show->add_flag("--effective", effective, "Also the keys that the file leaves at their defaults");
    show->add_option("--application", application, "That of the drop-in of this application")->type_name("APP");
    CLI::App* version = app.add_subcommand("version", "Print the version and end");
    for (CLI::App* command : {run, check, show})
    {
        command->add_option("--config", file, "The configuration file")->capture_default_str();
    }
    CLI11_PARSE(app, argc, argv);
    try
    {
        if (version->parsed())
        {
            std::printf("qel-agent %s\n", QEL_VERSION);
            return 0;
        }
        if (show->parsed())
        {
            return Show(file, application, effective);
        }
        return check->parsed() ? Check(file) : Run(file);
    }
    catch (const ConfigError& error)
    {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_CONFIGURATION;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "qel-agent: %s\n", error.what());
        return 1;
    }
}

#include "DevCommand.h"

#include "AdminClient.h"
#include "ApplicationName.h"
#include "ChildProcess.h"
#include "DevFolder.h"
#include "Failure.h"
#include "PlaneServer.h"
#include "PrivateBroker.h"
#include "qel/StopOnSignals.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>

#include <sys/un.h>

namespace VtxQel
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* agentId = "dev";
constexpr const char* runtimeFolder = "run";
constexpr int startAttempts = 5;
constexpr std::chrono::milliseconds betweenLooks{100};

/** The agent's program: what was said, else the one beside us, else the installed one. */
std::string FindAgent(const std::string& said)
{
    const fs::path beside = fs::read_symlink("/proc/self/exe").parent_path() / "qel-agent";
    std::string program = !said.empty() ? said : fs::exists(beside) ? beside.string() : "";
    if (program.empty())
    {
        // Where it is installed is not in everybody's PATH.
        program = FindProgram("qel-agent", "/usr/sbin");
    }
    if (program.empty() || !fs::exists(program))
    {
        throw Failure(
            (program.empty() ? "there is no qel-agent beside qelctl or in the PATH" : "there is no " + program) +
            std::string(": say --agent PATH"));
    }
    return program;
}

std::string SocketOf(const DevFolder& folder, const std::string& application)
{
    std::string socket = folder.Path(std::string(runtimeFolder) + "/apps/" + application + ".sock");
    constexpr std::size_t longest = sizeof(sockaddr_un::sun_path) - 1;
    if (socket.size() > longest)
    {
        throw UsageError(
            "the path of the application's socket, " + socket + ", has " + std::to_string(socket.size()) +
            " bytes, the system's limit is " + std::to_string(longest) + ": give another folder with --keep");
    }
    return socket;
}

std::string ConfigurationName(const std::string& application)
{
    return std::string("plane/") + agentId + "/" + application + ".json";
}

std::string SampleConfiguration(const std::string& application)
{
    return "{\n  \"topicInfo\": [{\"topic\": \"" + application + ".#\"}],\n  \"queueName\": [\"" + application +
           ".jobs\"]\n}\n";
}

bool IsReady(const std::string& runtimeDirectory)
{
    try
    {
        constexpr unsigned ok = 200;
        return AdminClient(runtimeDirectory).Get("/readyz", std::chrono::seconds(2)).status == ok;
    }
    catch (const Failure&)
    {
        return false;
    }
}

} // namespace

CLI::App* DevCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("dev", "Run a broker, an agent and a plane for the application you write");
    verb->add_option("application", m_application, "The application's name")
        ->required()
        ->check(ApplicationNameValidator())
        ->type_name("APP");
    verb->add_option("--keep", m_keep, "Have everything in this folder and leave it there (default: a temporary one)")
        ->type_name("DIR");
    verb->add_option("--agent", m_agent, "The program (default: qel-agent beside qelctl, or in the PATH)")
        ->type_name("FILE");
    verb->add_option("--rabbitmq", m_rabbitmq, "The folder of the program rabbitmq-server (default: the package's)")
        ->type_name("DIR");
    verb->add_option("--port", m_port, "Where the broker listens, on 127.0.0.1 (default: a free port)")
        ->check(CLI::Range(1, 65535))
        ->type_name("N");
    verb->add_option("--start-timeout", m_startTimeout, "How long a start may take (default 60)")
        ->check(CLI::Range(0.001, 86400.0))
        ->type_name("SECONDS");
    return verb;
}

void DevCommand::Run(const GlobalOptions& options)
{
    const qel::StopOnSignals signals([this] { RequestStop(); });
    try
    {
        Play(options);
    }
    catch (const Stopped&)
    {
        // As was asked for.
    }
}

void DevCommand::Play(const GlobalOptions& options)
{
    const std::string program = FindAgent(m_agent);
    const DevFolder folder(m_keep);
    const std::string socket = SocketOf(folder, m_application);
    std::unique_ptr<PrivateBroker> broker;
    StartBroker(folder, broker);

    const std::string configuration = WriteAgentFiles(folder, *broker);
    const ChildProcess agent(
        {"the agent", program, {"run", "--config", configuration}, {{"LANG", "C.UTF-8"}}, folder.Path("agent.log")},
        [this] { NoticeEnd(); });
    const auto hasEnded = [&agent, &broker] { return agent.HasEnded() || !broker->Obituary().empty(); };
    const auto ready = [&folder, &socket] { return fs::exists(socket) && IsReady(folder.Path(runtimeFolder)); };
    if (WaitUntil(ready, hasEnded, "the agent", [&agent] { return agent.Tail(); }))
    {
        Announce(options, folder, *broker);
        RunPlane(options, folder, *broker, hasEnded);
    }
    if (hasEnded())
    {
        throw Failure(agent.HasEnded() ? agent.Obituary() : broker->Obituary());
    }
}

void DevCommand::StartBroker(const DevFolder& folder, std::unique_ptr<PrivateBroker>& broker)
{
    for (int attempt = 1;; ++attempt)
    {
        broker.reset();
        broker = std::make_unique<PrivateBroker>(folder, m_rabbitmq, m_port, [this] { NoticeEnd(); });
        const bool isUp = WaitUntil(
            [&broker] { return broker->IsUp(); }, [&broker] { return !broker->Obituary().empty(); }, "the broker",
            [&broker] { return broker->Tail(); });
        if (isUp)
        {
            return;
        }
        if (attempt == startAttempts || !broker->HasLostAPort())
        {
            throw Failure(broker->Obituary());
        }
    }
}

std::string DevCommand::WriteAgentFiles(const DevFolder& folder, const PrivateBroker& broker) const
{
    const std::string directories = "state_directory = \"" + folder.Make("state") + "\"\nruntime_directory = \"" +
                                    folder.Make(runtimeFolder) + "\"\n";
    const std::string applications = folder.Make("apps.d");
    folder.WriteOnce("apps.d/" + m_application + ".toml", "");
    folder.Make(std::string("plane/") + agentId);
    folder.WriteOnce(ConfigurationName(m_application), SampleConfiguration(m_application));
    return folder.Write(
        "qel.toml", std::string("[agent]\nid = \"") + agentId + "\"\n" + directories + "\n[broker]\nurls = [\"" +
                        broker.UrlWithoutUser() + "\"]\nuser = \"" + PrivateBroker::USER + "\"\npassword_file = \"" +
                        broker.PasswordFile() + "\"\n\n[management]\nrouting_key = \"" + PlaneAddress().routingKey +
                        "\"\n\n[applications]\ndirectory = \"" + applications + "\"\n");
}

void DevCommand::Announce(const GlobalOptions& options, const DevFolder& folder, const PrivateBroker& broker) const
{
    const std::string environment = folder.Write(
        "environment", "export QEL_BROKER_URL=" + broker.Url() + "\nexport QEL_BROKER_PASSWORD=" + broker.Password() +
                           "\nexport QEL_RUNTIME_DIRECTORY=" + folder.Path(runtimeFolder) + "\n");
    const std::string socket = SocketOf(folder, m_application);
    const std::string configuration = folder.Path(ConfigurationName(m_application));
    if (options.json)
    {
        const nlohmann::ordered_json line = {{"event", "running"},         {"application", m_application},
                                             {"socket", socket},           {"configuration", configuration},
                                             {"environment", environment}, {"brokerUrl", broker.Url()}};
        std::cout << line.dump() << std::endl;
        return;
    }
    std::cout << "The broker and the agent of " << m_application << " are running. In another terminal:\n\n  . "
              << environment << "\n  qelctl attach " << m_application
              << " --verdict ask\n  qelctl publish --exchange qel --routing-key " << m_application
              << ".hello hello\n\nThe application's socket  " << socket << "\nIts configuration         "
              << configuration << "\n\nEdit the latter, and it is replaced. Ctrl-C ends everything"
              << (folder.IsKept() ? "." : " and leaves nothing behind.") << std::endl;
}

void DevCommand::RunPlane(
    const GlobalOptions& options, const DevFolder& folder, const PrivateBroker& broker,
    const std::function<bool()>& hasEnded)
{
    PlaneServer plane(folder.Path("plane"), {});
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_plane = &plane;
        if (m_stop)
        {
            plane.Stop();
        }
    }
    const std::shared_ptr<void> forgotten(
        nullptr,
        [this](void*)
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_plane = nullptr;
        });
    // What ends from now on stops the plane.
    if (hasEnded())
    {
        return;
    }
    GlobalOptions ours;
    ours.brokerUrl = broker.Url();
    ours.passwordFile = broker.PasswordFile();
    ours.timeoutSeconds = options.timeoutSeconds;
    ours.json = options.json;
    plane.Run(ours, std::cout);
}

bool DevCommand::WaitUntil(
    const std::function<bool()>& condition, const std::function<bool()>& hasEnded, const std::string& what,
    const std::function<std::string()>& tail)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(m_startTimeout);
    while (!hasEnded())
    {
        if (condition())
        {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline)
        {
            throw Failure(
                what + " is not ready after " +
                InSeconds(std::chrono::milliseconds(static_cast<std::int64_t>(m_startTimeout * 1000))) +
                ": wait longer with --start-timeout, or see what keeps it" + tail());
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_changed.wait_for(lock, betweenLooks, [this] { return m_stop; }))
        {
            throw Stopped();
        }
    }
    return false;
}

void DevCommand::NoticeEnd()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_plane != nullptr)
    {
        m_plane->Stop();
    }
}

void DevCommand::RequestStop()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
    m_changed.notify_all();
    if (m_plane != nullptr)
    {
        m_plane->Stop();
    }
}

} // namespace VtxQel

#include "AttachCommand.h"

#include "ApplicationName.h"
#include "Failure.h"
#include "qel/StopOnSignals.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

using qel::apps::v1::Verdict;

/** How long the agent may take to end a stream that we have ended on our side. */
constexpr std::chrono::seconds endPatience{5};
constexpr std::chrono::milliseconds firstPause{200};
constexpr std::chrono::milliseconds longestPause{5000};
constexpr std::size_t longestPath = sizeof(sockaddr_un::sun_path) - 1;

} // namespace

CLI::App* AttachCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("attach", "Be an application: print its deliveries and answer them");
    verb->add_option("application", m_application, "The application's name")
        ->required()
        ->check(ApplicationNameValidator())
        ->type_name("APP");
    CLI::Option* directory =
        verb->add_option("--runtime-directory", m_runtimeDirectory, "The agent's runtime directory (default /run/qel)")
            ->type_name("DIR");
    verb->add_option("--socket", m_socket, "The application's socket (default DIR/apps/APP.sock)")
        ->excludes(directory)
        ->type_name("PATH");
    m_settings.instance = "qelctl-" + std::to_string(getpid());
    verb->add_option("--instance", m_settings.instance, "Tells instances apart in the agent's log")->type_name("TEXT");
    verb->add_option(
            "--window", m_settings.window, "How many deliveries may be without a verdict (default: the agent's)")
        ->type_name("N");
    const std::map<std::string, Verdict::Kind> verdicts = {
        {"done", Verdict::DONE}, {"retry", Verdict::RETRY}, {"dead", Verdict::DEAD}};
    verb->add_option(
            "--verdict", m_settings.verdict, "The answer to every delivery: done, retry or dead (default done)")
        ->transform(CLI::CheckedTransformer(verdicts).description(""))
        ->type_name("VERDICT");
    verb->add_option("--reason", m_settings.reason, "With dead: why")->type_name("TEXT");
    verb->add_option("--retry-delay-ms", m_settings.retryDelayMs, "With retry: not before so many milliseconds")
        ->check(CLI::Range(0U, 900000U))
        ->type_name("N");
    verb->add_option("--count", m_count, "End after so many deliveries (default: never)")->type_name("N");
    verb->add_flag("--reconnect", m_reconnect, "Attach again when the agent is away");
    return verb;
}

void AttachCommand::Run(const GlobalOptions& options)
{
    const std::string socket = Socket();
    const qel::StopOnSignals signals([this] { RequestStop(); });
    DeliveryPrinter printer(std::cout, options.json);
    std::chrono::milliseconds pause = firstPause;
    while (!IsOver())
    {
        bool welcomed = false;
        const std::string trouble = AttachOnce(socket, printer, welcomed);
        if (trouble.empty())
        {
            return;
        }
        if (!m_reconnect)
        {
            throw Failure(trouble);
        }
        printer.PrintDetached(trouble);
        pause = welcomed ? firstPause : std::min(pause * 2, longestPause);
        Pause(pause);
    }
}

std::string AttachCommand::Socket() const
{
    std::string socket = m_socket.empty() ? m_runtimeDirectory + "/apps/" + m_application + ".sock" : m_socket;
    if (socket.size() > longestPath)
    {
        throw UsageError(
            "the socket's path " + socket + " has " + std::to_string(socket.size()) + " bytes, the system's limit is " +
            std::to_string(longestPath));
    }
    return socket;
}

void AttachCommand::CheckSocket(const std::string& socket) const
{
    struct stat found = {};
    if (stat(socket.c_str(), &found) != 0)
    {
        const bool absent = errno == ENOENT || errno == ENOTDIR;
        throw Failure(
            absent ? "there is no socket " + socket + ": is the agent running, is this its runtime directory, and is " +
                         m_application + ".toml in its applications' directory?"
                   : "the socket " + socket + " cannot be looked at: " + std::strerror(errno));
    }
    if (!S_ISSOCK(found.st_mode))
    {
        throw Failure(socket + " is not a socket");
    }
    if (access(socket.c_str(), W_OK) != 0)
    {
        throw Failure(
            "the socket " + socket + " may not be used by this user: " + std::strerror(errno) +
            ": run as the user or group that the application's drop-in names (uid " + std::to_string(found.st_uid) +
            ", gid " + std::to_string(found.st_gid) + ")");
    }
}

std::string AttachCommand::AttachOnce(const std::string& socket, DeliveryPrinter& printer, bool& welcomed)
{
    try
    {
        CheckSocket(socket);
    }
    catch (const Failure& failure)
    {
        return failure.what();
    }
    Attachment attachment(m_settings, printer, m_count == 0 ? 0 : m_count - m_received);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        attachment.Start(socket);
        m_current = &attachment;
        if (m_stop)
        {
            attachment.Detach();
        }
    }
    Follow(attachment);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_current = nullptr;
    }
    m_received += attachment.Deliveries();
    welcomed = attachment.WasWelcomed();
    return Explain(attachment, socket);
}

void AttachCommand::Follow(Attachment& attachment) const
{
    attachment.WaitUntilEnding();
    if (!attachment.Wait(endPatience))
    {
        attachment.Cancel();
        while (!attachment.Wait(endPatience))
        {
        }
    }
}

std::string AttachCommand::Explain(const Attachment& attachment, const std::string& socket) const
{
    const grpc::Status status = attachment.Status();
    if (attachment.WasEndedByUs())
    {
        return status.ok() || !attachment.WasWelcomed()
                   ? ""
                   : "the stream did not end in order, the last verdicts may be lost: " + status.error_message();
    }
    if (status.ok())
    {
        return "the agent has ended the stream: it is stopping, or " + m_application + " was taken away from it";
    }
    if (!attachment.WasWelcomed() && status.error_code() == grpc::StatusCode::UNAVAILABLE)
    {
        return "nobody answers on " + socket + " (" + status.error_message() +
               "): is the agent running? It also hangs up when this user is not the one in the drop-in of " +
               m_application;
    }
    return (attachment.WasWelcomed() ? "the agent has broken the stream off: " : "the agent refuses to attach us: ") +
           status.error_message() + " (gRPC status " + std::to_string(status.error_code()) + ")";
}

void AttachCommand::RequestStop()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
    if (m_current != nullptr)
    {
        m_current->Detach();
    }
    m_changed.notify_all();
}

bool AttachCommand::IsOver()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stop;
}

void AttachCommand::Pause(std::chrono::milliseconds duration)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, duration, [this] { return m_stop; });
}

} // namespace VtxQel

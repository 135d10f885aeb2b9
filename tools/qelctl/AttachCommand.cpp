#include "AttachCommand.h"

#include "ApplicationName.h"
#include "DeliveryPrinter.h"
#include "Failure.h"
#include "qel/StopOnSignals.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <map>
#include <utility>

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

constexpr std::size_t longestPath = sizeof(sockaddr_un::sun_path) - 1;
/** gRPC's UNAVAILABLE. */
constexpr int unavailable = 14;

/** @throws Failure when the application's socket cannot be used. */
void CheckSocket(const std::string& application, const std::string& socket)
{
    struct stat found = {};
    if (stat(socket.c_str(), &found) != 0)
    {
        const bool absent = errno == ENOENT || errno == ENOTDIR;
        throw Failure(
            absent ? "there is no socket " + socket + ": is the agent running, is this its runtime directory, and is " +
                         application + ".toml in its applications' directory?"
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
    m_instance = "qelctl-" + std::to_string(getpid());
    verb->add_option("--instance", m_instance, "Tells instances apart in the agent's log")->type_name("TEXT");
    verb->add_option(
            "--window", m_window,
            "How many deliveries may be without a verdict (default: 1 where answers are asked for, else the agent's)")
        ->type_name("N");
    const std::map<std::string, Answer_e> verdicts = {
        {"done", Answer_e::done}, {"retry", Answer_e::retry}, {"dead", Answer_e::dead}, {"ask", Answer_e::ask}};
    verb->add_option(
            "--verdict", m_verdict,
            "The answer to what no rule fits: done, retry, dead, or ask, which waits for a key or a line (default "
            "done)")
        ->transform(CLI::CheckedTransformer(verdicts).description(""))
        ->type_name("VERDICT");
    verb->add_option(
            "--rule", m_rules,
            "FIELD=PATTERN:VERDICT, the first that fits counts; FIELD is key (of words, * and #), type, app-id, "
            "message-id or queue (of shell patterns); may be repeated")
        ->type_name("RULE")
        ->allow_extra_args(false);
    verb->add_option("--reason", m_defaults.reason, "With dead: why")->type_name("TEXT");
    verb->add_option_function<std::uint32_t>(
            "--retry-delay-ms",
            [this](std::uint32_t delay) { m_defaults.retryDelay = std::chrono::milliseconds(delay); },
            "With retry: not before so many milliseconds")
        ->check(CLI::Range(static_cast<std::uint32_t>(longestRetryDelay.count())))
        ->type_name("N");
    verb->add_option("--count", m_count, "End after so many answered deliveries (default: never)")->type_name("N");
    verb->add_flag("--reconnect", m_reconnect, "Attach again when the agent is away");
    return verb;
}

void AttachCommand::Run(const GlobalOptions& options)
{
    const AnswerRules rules(m_rules);
    const std::string socket = Socket();
    if (!m_reconnect)
    {
        CheckSocket(m_application, socket);
    }
    if (m_verdict == Answer_e::ask || rules.Asks())
    {
        m_prompt = std::make_unique<AnswerPrompt>(STDIN_FILENO, std::cerr, m_defaults);
        // What waits behind a question would wait too long.
        m_window = m_window.value_or(1);
    }
    DeliveryPrinter printer(std::cout, options.json);
    qel::Client client(m_application, ClientOptions(socket, printer));
    const qel::StopOnSignals signals([this, &client] { RequestStop(client); });
    try
    {
        client.Run(
            [this, &rules, &client, &printer](const qel::Message& message)
            {
                qel::Verdict verdict = Handle(rules, message, printer);
                if ((m_count != 0 && m_answered == m_count) || (m_prompt && m_prompt->IsOver()))
                {
                    RequestStop(client);
                }
                return verdict;
            });
    }
    catch (const qel::AttachError&)
    {
        // The detachment has told why.
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_trouble.empty())
    {
        throw Failure(m_trouble);
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

qel::Options AttachCommand::ClientOptions(const std::string& socket, DeliveryPrinter& printer)
{
    qel::Options options;
    options.socket = socket;
    options.instance = m_instance;
    options.window = m_window.value_or(0);
    options.stopPatience = std::chrono::milliseconds(0);
    options.attachAgain = m_reconnect;
    options.log = [](const std::string&) {};
    options.onWelcome = [this, &printer](const qel::Welcome& welcome)
    {
        printer.PrintWelcome(welcome);
        TakeWelcome();
    };
    options.onConfiguration = [&printer](const qel::Configuration& configuration)
    { printer.PrintConfiguration(configuration); };
    options.onBroker = [&printer](qel::BrokerState state) { printer.PrintBroker(state); };
    options.onDetached = [this, socket, &printer](const qel::Detachment& detachment)
    { TakeDetachment(detachment, socket, printer); };
    return options;
}

qel::Verdict AttachCommand::Handle(const AnswerRules& rules, const qel::Message& message, DeliveryPrinter& printer)
{
    printer.PrintDelivery(++m_shown, message);
    const Answer_e answer = rules.Find(message).value_or(m_verdict);
    qel::Verdict verdict = answer == Answer_e::ask ? m_prompt->Ask() : ToVerdict(answer, m_defaults);
    m_answered += verdict.GetKind() == qel::Verdict::Kind::none ? 0 : 1;
    return verdict;
}

void AttachCommand::TakeWelcome()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_prompt && !m_stopping)
    {
        m_prompt->Resume();
    }
}

void AttachCommand::TakeDetachment(
    const qel::Detachment& detachment, const std::string& socket, DeliveryPrinter& printer)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_prompt)
    {
        m_prompt->Interrupt();
    }
    if (!m_stopping)
    {
        m_trouble = Explain(detachment, socket);
        if (m_reconnect)
        {
            printer.PrintDetached(m_trouble);
        }
    }
    else if (detachment.wasWelcomed && detachment.status != 0)
    {
        m_trouble = "the stream did not end in order, the last verdicts may be lost: " + detachment.why;
    }
}

std::string AttachCommand::Explain(const qel::Detachment& detachment, const std::string& socket) const
{
    if (!detachment.wasWelcomed && detachment.status == unavailable)
    {
        try
        {
            CheckSocket(m_application, socket);
        }
        catch (const Failure& failure)
        {
            return failure.what();
        }
        return "nobody answers on " + socket + " (" + detachment.why +
               "): is the agent running? It also hangs up when this user is not the one in the drop-in of " +
               m_application;
    }
    if (detachment.status == 0)
    {
        return "the agent has ended the stream: it is stopping, or " + m_application + " was taken away from it";
    }
    return (detachment.wasWelcomed ? "the agent has broken the stream off: " : "the agent refuses to attach us: ") +
           detachment.why + " (gRPC status " + std::to_string(detachment.status) + ")";
}

void AttachCommand::RequestStop(qel::Client& client)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_trouble.clear();
        if (m_prompt)
        {
            m_prompt->Interrupt();
        }
    }
    client.Stop();
}

} // namespace VtxQel

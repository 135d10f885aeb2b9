#include "agent/AgentConfig.h"

#include "admin/ListenAddress.h"
#include "apps/StrictToml.h"
#include "broker/BrokerUrl.h"
#include "broker/TlsFiles.h"
#include "common/Printable.h"
#include "common/QelException.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <system_error>
#include <utility>

namespace VtxQel
{

namespace
{

/** RabbitMQ's limit for names (AMQP short strings). */
constexpr std::size_t LONGEST_NAME = 255;
/** The file name of the broker's password among systemd's credentials (LoadCredential=). */
constexpr const char* PASSWORD_CREDENTIAL = "broker-password";
constexpr const char* PASSWORD_FILE_VARIABLE = "QEL_BROKER_PASSWORD_FILE";

std::string Environment(const char* name)
{
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

/** Where the password is: the key, else the environment, else systemd's credential, else nowhere. */
std::string PasswordFile(StrictToml& toml)
{
    std::string file = toml.String("broker.password_file", Environment(PASSWORD_FILE_VARIABLE));
    const std::string credentials = Environment("CREDENTIALS_DIRECTORY");
    if (file.empty() && !credentials.empty())
    {
        const std::filesystem::path credential = std::filesystem::path(credentials) / PASSWORD_CREDENTIAL;
        file = std::filesystem::exists(credential) ? credential.string() : std::string();
    }
    return file;
}

/** The text with the password of each URL in it replaced; the text is that of a list, where no quote is part of a URL.
 */
std::string Masked(const std::string& urls)
{
    static const std::regex password("(://[^:@/\"]*:)[^@/\"]*@");
    return std::regex_replace(urls, password, "$1***@");
}

void WarnIfWritable(const std::string& file, AgentConfig& config)
{
    std::error_code failed;
    const std::filesystem::perms permissions = std::filesystem::status(file, failed).permissions();
    if (!failed && (permissions & std::filesystem::perms::others_write) != std::filesystem::perms::none)
    {
        config.warnings.push_back(Printable(file) + " can be changed by everybody: chmod o-w it");
    }
}

/** What is allowed, but makes another key count for nothing or takes a safety away. */
void WarnOfEmptyWords(AgentConfig& config)
{
    const std::vector<std::string>& urls = config.broker.link.urls;
    const auto isTls = [](const std::string& url) { return url.starts_with("amqps:"); };
    if (!(config.broker.link.tls == TlsFiles()) && std::none_of(urls.begin(), urls.end(), isTls))
    {
        config.warnings.emplace_back("broker.tls counts for nothing: none of broker.urls is amqps://");
    }
    if (!config.management.exchange.empty() && config.management.routingKey.empty())
    {
        config.warnings.emplace_back("management.exchange counts for nothing without management.routing_key");
    }
    if (config.broker.loopProbe.interval.count() == 0)
    {
        config.warnings.emplace_back(
            "broker.loop_probe_seconds is 0: that nothing comes by a connection that lives is not noticed");
    }
    constexpr int errors = 2;
    if (config.logLevel < errors)
    {
        config.warnings.emplace_back("log.level leaves out errors: use at least 2");
    }
}

void WarnIfPublic(const std::string& secret, AgentConfig& config)
{
    std::error_code failed;
    const std::filesystem::file_status status = std::filesystem::status(secret, failed);
    if (std::filesystem::exists(status) &&
        (status.permissions() & std::filesystem::perms::others_read) != std::filesystem::perms::none)
    {
        config.warnings.push_back(Printable(secret) + " can be read by everybody: chmod 0640 it");
    }
}

void ReadPassword(StrictToml& toml, AgentConfig& config)
{
    const std::string file = PasswordFile(toml);
    if (file.empty())
    {
        return;
    }
    std::ifstream stream(file);
    if (!std::getline(stream, config.broker.link.password))
    {
        toml.Fail("broker.password_file", "names " + file + ", which cannot be read or is empty");
        return;
    }
    config.passwordFile = file;
    WarnIfPublic(file, config);
}

bool IsLoopback(const std::string& host)
{
    return host == "localhost" || host == "::1" || host.starts_with("127.");
}

void ReadUrls(StrictToml& toml, AgentConfig& config)
{
    config.broker.link.urls = toml.Strings("broker.urls");
    if (config.broker.link.urls.empty())
    {
        toml.Fail("broker.urls", "must list at least one URL, for example [\"amqp://127.0.0.1:5672\"]");
    }
    std::size_t encrypted = 0;
    std::size_t exposed = 0;
    for (const std::string& text : config.broker.link.urls)
    {
        try
        {
            const BrokerUrl url = BrokerUrl::Parse(text);
            if (text.find('@') != std::string::npos)
            {
                config.warnings.push_back(
                    "broker.urls holds a password for " + Printable(url.host) +
                    ": use broker.user and broker.password_file");
            }
            encrypted += url.tls ? 1 : 0;
            if (!url.tls && !IsLoopback(url.host))
            {
                ++exposed;
                config.warnings.push_back(
                    "the connection to " + Printable(url.host) + " is not encrypted: use amqps:// and broker.tls");
            }
        }
        catch (const QelException& error)
        {
            toml.Fail("broker.urls", error.what());
        }
    }
    if (encrypted > 0 && exposed > 0)
    {
        config.warnings.emplace_back("broker.urls mixes amqps:// and amqp://: who keeps the agent from the encrypted "
                                     "ones is told its password by the other");
    }
}

std::string ReadName(StrictToml& toml, const std::string& key, const std::string& absent)
{
    std::string name = toml.String(key, absent);
    if (name.empty() || name.size() > LONGEST_NAME)
    {
        toml.Fail(key, "must have 1 to " + std::to_string(LONGEST_NAME) + " bytes");
    }
    return name;
}

/** The keys of the TLS files, and where their names go. */
constexpr std::array<std::pair<const char*, std::string TlsFiles::*>, 3> TLS_KEYS{
    {{"broker.tls.ca_file", &TlsFiles::caFile},
     {"broker.tls.certificate_file", &TlsFiles::certificateFile},
     {"broker.tls.key_file", &TlsFiles::keyFile}}};

void ReadTls(StrictToml& toml, AgentConfig& config)
{
    TlsFiles& files = config.broker.link.tls;
    for (const auto& [key, file] : TLS_KEYS)
    {
        files.*file = toml.String(key, "");
    }
    if (files.certificateFile.empty() != files.keyFile.empty())
    {
        toml.Fail("broker.tls", "needs both certificate_file and key_file, or neither");
    }
    for (const TlsFault& fault : FindTlsFaults(files))
    {
        const auto key = std::find_if(
            TLS_KEYS.begin(), TLS_KEYS.end(), [&fault](const auto& each) { return each.second == fault.file; });
        toml.Fail(key->first, "names " + Printable(files.*fault.file) + ", which " + fault.why);
    }
    WarnIfPublic(files.keyFile, config);
}

void ReadControlUsers(StrictToml& toml, AgentConfig& config)
{
    config.broker.controlUsers = toml.Strings("broker.control_users");
    for (const std::string& user : config.broker.controlUsers)
    {
        if (user.empty() || user.size() > LONGEST_NAME)
        {
            toml.Fail("broker.control_users", "must list names of 1 to " + std::to_string(LONGEST_NAME) + " bytes");
        }
    }
}

void ReadBroker(StrictToml& toml, AgentConfig& config)
{
    BrokerSettings& broker = config.broker;
    ReadUrls(toml, config);
    broker.link.user = toml.String("broker.user", "");
    ReadPassword(toml, config);
    broker.names.exchange = ReadName(toml, "broker.exchange", "qel");
    broker.names.exchangeType = toml.Choice("broker.exchange_type", "topic", {"topic", "direct"});
    broker.exchangePassive = toml.Boolean("broker.exchange_passive", false);
    broker.names.clientQueue = ReadName(toml, "broker.client_queue", "qel.client." + config.id);
    broker.names.priorityQueue = ReadName(toml, "broker.priority_queue", "qel.priority." + config.id);
    broker.names.deadLetterQueue = ReadName(toml, "broker.dead_letter_queue", broker.names.clientQueue + ".dead");
    if (broker.names.clientQueue == broker.names.priorityQueue)
    {
        toml.Fail("broker.priority_queue", "must not be the client queue");
    }
    broker.queueType = toml.Choice("broker.queue_type", "quorum", {"quorum", "classic"});
    broker.prefetch = static_cast<std::uint16_t>(toml.Integer("broker.prefetch", 1000, {1, 65535}));
    broker.maxHeldBytes =
        static_cast<std::size_t>(toml.Integer("broker.max_held_bytes", 67108864, {1048576, 1099511627776}));
    broker.link.heartbeat = std::chrono::seconds(toml.Integer("broker.heartbeat_seconds", 10, {1, 3600}));
    broker.link.connectionName = "qel-agent " + config.id;
    ReadTls(toml, config);
    ReadControlUsers(toml, config);
    config.reassignWithin = std::chrono::seconds(toml.Integer("broker.reassign_within_seconds", 180, {0, 3600}));
}

void ReadLoopProbe(StrictToml& toml, LoopProbeSettings& probe)
{
    probe.interval = std::chrono::seconds(toml.Integer("broker.loop_probe_seconds", 30, {0, 3600}));
    probe.deadline = std::chrono::seconds(toml.Integer("broker.loop_probe_deadline_seconds", 10, {1, 600}));
}

void ReadAdmin(StrictToml& toml, AgentConfig& config)
{
    config.adminListen = toml.String("admin.listen", "");
    if (config.adminListen.empty())
    {
        return;
    }
    try
    {
        LoopbackEndpoint(config.adminListen);
    }
    catch (const QelException& error)
    {
        toml.Fail("admin.listen", error.what());
    }
}

} // namespace

AgentConfig LoadAgentConfig(const std::string& file)
{
    StrictToml toml(file);
    AgentConfig config;
    config.id = toml.String("agent.id", "");
    if (config.id.empty() || config.id.size() > 128)
    {
        toml.Fail("agent.id", "must be given: 1 to 128 bytes that tell this host from all others");
    }
    config.stateDirectory = toml.String("agent.state_directory", "/var/lib/qel");
    config.runtimeDirectory = toml.String("agent.runtime_directory", "/run/qel");
    ReadBroker(toml, config);
    config.management.exchange = toml.String("management.exchange", "");
    config.management.routingKey = toml.String("management.routing_key", "");
    config.management.replyTo = config.broker.names.clientQueue;
    config.applicationsDirectory = toml.String("applications.directory", "/etc/qel/apps.d");
    ReadLoopProbe(toml, config.broker.loopProbe);
    ReadAdmin(toml, config);
    config.logLevel = static_cast<int>(toml.Integer("log.level", 4, {0, 7}));
    config.logFormat = toml.Choice("log.format", "text", {"text", "journal", "json"});

    std::string problems;
    for (const std::string& problem : toml.Problems())
    {
        problems += (problems.empty() ? "" : "\n") + problem;
    }
    if (!problems.empty())
    {
        throw ConfigError(problems);
    }
    WarnIfWritable(file, config);
    WarnOfEmptyWords(config);
    config.settings = toml.Settings();
    for (Setting& setting : config.settings)
    {
        if (setting.key == "broker.urls" && setting.value)
        {
            setting.value = Masked(*setting.value);
        }
    }
    return config;
}

} // namespace VtxQel

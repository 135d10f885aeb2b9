#include "GlobalOptions.h"

#include "Failure.h"
#include "broker/BrokerUrl.h"
#include "common/QelException.h"

#include <CLI/CLI.hpp>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <unistd.h>

namespace VtxQel
{

namespace
{

std::string ReadPassword(const std::string& file)
{
    std::ifstream input(file);
    std::string line;
    if (!input || (!std::getline(input, line) && !input.eof()))
    {
        throw Failure(
            "the password file " + file + " cannot be read: " + std::strerror(errno) +
            ": give a file whose first line is the password");
    }
    return line;
}

/** The options of the TLS files. */
constexpr std::array<std::pair<const char*, std::string TlsFiles::*>, 3> tlsOptions{
    {{"--ca-file", &TlsFiles::caFile},
     {"--certificate-file", &TlsFiles::certificateFile},
     {"--key-file", &TlsFiles::keyFile}}};

void CheckTls(const TlsFiles& files)
{
    if (files.certificateFile.empty() != files.keyFile.empty())
    {
        throw UsageError("--certificate-file and --key-file belong together: give both or neither");
    }
    std::string problems;
    for (const TlsFault& fault : FindTlsFaults(files))
    {
        for (const auto& [option, file] : tlsOptions)
        {
            problems += file == fault.file
                            ? std::string(problems.empty() ? "" : "\n") + option + " " + files.*file + " " + fault.why
                            : "";
        }
    }
    if (!problems.empty())
    {
        throw Failure(problems);
    }
}

} // namespace

void GlobalOptions::Register(CLI::App& root)
{
    root.add_option("--broker", brokerUrl, "The broker, amqp://USER@HOST:PORT/VHOST or amqps://...")
        ->envname("QEL_BROKER_URL")
        ->type_name("URL");
    root.add_option("--password-file", passwordFile, "File whose first line is the password (or QEL_BROKER_PASSWORD)")
        ->type_name("FILE");
    root.add_option("--ca-file", tls.caFile, "Certificates that amqps brokers are checked against")->type_name("FILE");
    root.add_option("--certificate-file", tls.certificateFile, "Client certificate for amqps")->type_name("FILE");
    root.add_option("--key-file", tls.keyFile, "Private key of the client certificate")->type_name("FILE");
    root.add_option("--timeout", timeoutSeconds, "How long one step may take (default 10)")
        ->check(CLI::Range(0.001, 86400.0))
        ->type_name("SECONDS");
    root.add_flag("--json", json, "Print JSON, one object a line");
}

std::chrono::milliseconds GlobalOptions::Timeout() const
{
    return std::chrono::milliseconds(static_cast<std::int64_t>(timeoutSeconds * 1000));
}

std::optional<std::string> GlobalOptions::Password() const
{
    if (!passwordFile.empty())
    {
        return ReadPassword(passwordFile);
    }
    const char* const password = std::getenv("QEL_BROKER_PASSWORD");
    return password == nullptr ? std::nullopt : std::optional<std::string>(password);
}

std::string GlobalOptions::User() const
{
    if (brokerUrl.empty())
    {
        throw UsageError("no broker is named: give --broker URL or set QEL_BROKER_URL");
    }
    try
    {
        const BrokerUrl url = BrokerUrl::Parse(brokerUrl);
        const bool byCertificate = url.tls && !tls.certificateFile.empty();
        return byCertificate && !url.namesUser ? "" : url.user;
    }
    catch (const QelException& error)
    {
        throw UsageError(std::string(error.what()) + ": write amqp://USER@HOST:PORT/VHOST");
    }
}

LinkSettings GlobalOptions::ToLinkSettings(const std::string& purpose) const
{
    // A malformed URL is told from an unreachable broker here.
    User();
    CheckTls(tls);
    LinkSettings settings;
    settings.urls = {brokerUrl};
    settings.password = Password().value_or("");
    settings.tls = tls;
    settings.connectionName = "qelctl " + purpose + " (" + std::to_string(getpid()) + ")";
    settings.firstConnectDeadline = Timeout();
    return settings;
}

std::string InSeconds(std::chrono::milliseconds duration)
{
    std::ostringstream text;
    text << static_cast<double>(duration.count()) / 1000.0 << " s";
    return text.str();
}

} // namespace VtxQel

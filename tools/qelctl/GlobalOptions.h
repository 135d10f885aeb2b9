#pragma once

#include "broker/BrokerLink.h"

#include <chrono>
#include <optional>
#include <string>

namespace CLI
{
class App;
}

namespace VtxQel
{

/**
 * What every verb understands: the broker and how to log in, the patience, the form of the output.
 *
 * A plain record, filled by the command line and the environment and constant while a verb runs.
 */
struct GlobalOptions
{
    std::string brokerUrl;
    std::string passwordFile;
    TlsFiles tls;
    double timeoutSeconds = 10;
    bool json = false;

    /** Adds the options to the command line; they land in this object, which must outlive it. */
    void Register(CLI::App& root);

    /** The password that file or environment give. @throws Failure when the file cannot be read. */
    std::optional<std::string> Password() const;

    /** How long one step with the broker or the agent may take. */
    std::chrono::milliseconds Timeout() const;

    /**
     * The link settings of these options.
     * @throws UsageError when no broker is named, the URL is malformed, or one of certificate and key is missing;
     * Failure when the password or a TLS file cannot be used.
     */
    LinkSettings ToLinkSettings(const std::string& purpose) const;

    /**
     * The user that the broker knows us by, for the user-id of messages; empty when only the certificate tells, because
     * we log in with one and the URL does not name the user that the broker takes from it.
     * @throws UsageError as above.
     */
    std::string User() const;
};

/** "10 s", "0.5 s": for messages. */
std::string InSeconds(std::chrono::milliseconds duration);

} // namespace VtxQel

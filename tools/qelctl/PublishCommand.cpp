#include "PublishCommand.h"

#include "Failure.h"
#include "InputText.h"
#include "PublishRun.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <iostream>

#include <unistd.h>

namespace VtxQel
{

namespace
{

/** Only many messages, watched by somebody, are worth a progress line. */
constexpr std::uint64_t manyMessages = 1000;

std::pair<std::string, RmqValue> ParseHeader(const std::string& text)
{
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos)
    {
        throw UsageError("--header " + text + ": write name=value");
    }
    return {text.substr(0, equals), RmqValue::String(text.substr(equals + 1))};
}

} // namespace

CLI::App* PublishCommand::Register(CLI::App& root)
{
    CLI::App* verb = root.add_subcommand("publish", "Publish a message and wait for the broker's confirm");
    verb->add_option("--exchange", m_exchange, "The exchange (default: the default exchange)")->type_name("NAME");
    verb->add_option("--routing-key", m_routingKey, "The routing key; on the default exchange the queue")
        ->type_name("KEY");
    verb->add_option("--type", m_properties.type, "The message's type")->type_name("TYPE");
    verb->add_option("--app-id", m_properties.appId, "The application it is for")->type_name("APP");
    verb->add_option("--message-id", m_properties.messageId, "The message's id")->type_name("ID");
    verb->add_option("--correlation-id", m_properties.correlationId, "What an answer shall be told by")
        ->type_name("ID");
    verb->add_option("--reply-to", m_properties.replyTo, "The queue for an answer")->type_name("QUEUE");
    verb->add_option("--content-type", m_properties.contentType, "What the body is, such as application/json")
        ->type_name("TYPE");
    verb->add_option("--expiration", m_expiration, "Milliseconds after which a queue drops it or dead-letters it")
        ->type_name("MS");
    verb->add_option("--header", m_headers, "A header, text; may be repeated")
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
    verb->add_option("--priority", m_priority, "The message's priority")->check(CLI::Range(0U, 255U))->type_name("N");
    verb->add_flag("--persistent", m_persistent, "Have the broker keep it on disk");
    verb->add_flag("--mandatory", m_mandatory, "Fail when no queue takes it");
    verb->add_option("--count", m_count, "How many times (default 1)")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1000000000}))
        ->type_name("N");
    verb->add_option("--rate", m_rate, "At most so many a second (default: as fast as possible)")
        ->check(CLI::Range(0.001, 1e6))
        ->type_name("N");
    CLI::Option* body =
        verb->add_option("body", m_body, "The body; - reads it from the standard input")->type_name("BODY");
    verb->add_option("--body-file", m_bodyFile, "The file that is the body; - for the standard input")
        ->excludes(body)
        ->type_name("FILE");
    return verb;
}

OutgoingMessage PublishCommand::MakeMessage() const
{
    OutgoingMessage message;
    message.exchange = m_exchange;
    message.routingKey = m_routingKey;
    message.properties = m_properties;
    for (const std::string& header : m_headers)
    {
        message.properties.headers.push_back(ParseHeader(header));
    }
    if (m_priority)
    {
        message.properties.priority = static_cast<std::uint8_t>(*m_priority);
    }
    if (m_expiration)
    {
        message.properties.expiration = std::to_string(*m_expiration);
    }
    message.properties.deliveryMode = static_cast<std::uint8_t>(m_persistent ? 2 : 1);
    message.mandatory = m_mandatory;
    if (!m_body && !m_bodyFile)
    {
        throw UsageError("publish: no body is given: give BODY or --body-file FILE (\"\" is an empty body)");
    }
    message.body = m_bodyFile ? ReadInput(*m_bodyFile) : (*m_body == "-" ? ReadInput("-") : *m_body);
    return message;
}

std::string PublishCommand::Target() const
{
    return m_exchange.empty() ? "queue " + m_routingKey
                              : "exchange " + m_exchange + " with key \"" + m_routingKey + "\"";
}

void PublishCommand::Run(const GlobalOptions& options)
{
    const OutgoingMessage message = MakeMessage();
    PublishRun run(m_count, m_rate);
    std::uint64_t confirmed = 0;
    {
        ManagementSession session(options, "publish");
        session.Open(false);
        confirmed = run.Execute(session, message, m_count >= manyMessages && isatty(STDERR_FILENO) == 1);
    }
    const PublishOutcome trouble = run.Trouble();
    if (trouble.result != PublishResult::confirmed)
    {
        const std::string why = trouble.result == PublishResult::noRoute
                                    ? "no queue takes it: check the exchange, the key and the bindings"
                                    : trouble.why;
        throw Failure(
            (m_count == 1 ? "the message to " + Target() + " was not confirmed: "
                          : std::to_string(confirmed) + " of " + std::to_string(m_count) + " messages to " + Target() +
                                " were confirmed, the next was not: ") +
            why);
    }
    Report(confirmed, message.body.size(), options.json);
}

void PublishCommand::Report(std::uint64_t confirmed, std::size_t bodyBytes, bool json) const
{
    if (json)
    {
        const nlohmann::ordered_json line = {
            {"exchange", m_exchange}, {"routingKey", m_routingKey}, {"bodyBytes", bodyBytes}, {"confirmed", confirmed}};
        std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
        return;
    }
    std::cout << confirmed << (confirmed == 1 ? " message" : " messages") << " of " << bodyBytes << " bytes to "
              << Target() << (confirmed == 1 ? " is" : " are") << " confirmed by the broker" << std::endl;
}

} // namespace VtxQel

#include "BrokerCheckup.h"

#include "ManagementSession.h"
#include "broker/AgentQueues.h"
#include "common/Printable.h"

#include <boost/asio/io_context.hpp>
#include <boost/beast/core/tcp_stream.hpp>

#include <ctime>

namespace VtxQel
{

namespace
{

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::uint16_t ACCESS_REFUSED = 403;
constexpr std::uint16_t NOT_FOUND = 404;
constexpr std::int64_t SOON = std::int64_t{30} * 86400;

/** Why no connection can be made to the address; empty when one can. */
std::string TroubleWith(const tcp::endpoint& endpoint, std::chrono::milliseconds timeout)
{
    asio::io_context io;
    boost::beast::tcp_stream stream(io);
    std::string trouble;
    stream.expires_after(timeout);
    stream.async_connect(endpoint, [&trouble](const error_code& error) { trouble = error ? error.message() : ""; });
    io.run();
    return trouble;
}

std::string TextOf(const tcp::endpoint& endpoint)
{
    return endpoint.address().to_string();
}

std::string TextOf(const RequestResult& result)
{
    return (result.code == 0 ? "" : std::to_string(result.code) + " ") + result.text;
}

} // namespace

BrokerCheckup::BrokerCheckup(const AgentConfig& config, std::chrono::milliseconds timeout, Findings& findings)
    : m_config(config), m_timeout(timeout), m_findings(findings)
{
}

void BrokerCheckup::CheckBrokers()
{
    for (const std::string& url : m_config.broker.link.urls)
    {
        CheckUrl(url);
    }
}

void BrokerCheckup::CheckUrl(const std::string& text)
{
    const BrokerUrl url = BrokerUrl::Parse(text);
    const Endpoints endpoints = Resolve(url);
    if (endpoints.empty() || !Connect(url, endpoints))
    {
        return;
    }
    LinkSettings settings = m_config.broker.link;
    settings.urls = {text};
    settings.connectionName = "qelctl doctor";
    settings.firstConnectDeadline = m_timeout;
    const bool byCertificate = url.tls && !settings.tls.certificateFile.empty();
    m_user = byCertificate ? "the certificate's user" : settings.user.empty() ? url.user : settings.user;
    BrokerTrial trial(std::move(settings));
    const BrokerTrial::Login login = trial.Open();
    const std::string where = url.Printable();
    if (login == BrokerTrial::Login::failed)
    {
        m_findings.Fail(
            url.tls ? "TLS" : "login", where + ": " + trial.Why(),
            url.tls ? "compare broker.tls with the broker's certificate, and the clocks of both hosts"
                    : "see whether it is a RabbitMQ that listens there");
        return;
    }
    if (url.tls)
    {
        m_findings.Ok("TLS", where + " shows a certificate that is good for it");
        CheckCertificates(trial.Link().Status().certificates);
    }
    if (login == BrokerTrial::Login::refused)
    {
        m_findings.Fail(
            "login", where + ": " + trial.Why(),
            "compare broker.user, the password and the virtual host with the broker's (rabbitmqctl list_users, "
            "list_vhosts); a password that only the agent's service gets is given to doctor by --password-file");
        return;
    }
    m_findings.Ok("login", where + " lets " + m_user + " in");
    if (!std::exchange(m_rightsKnown, true))
    {
        CheckRights(trial);
    }
}

BrokerCheckup::Endpoints BrokerCheckup::Resolve(const BrokerUrl& url)
{
    asio::io_context io;
    tcp::resolver resolver(io);
    error_code error;
    Endpoints endpoints;
    std::string addresses;
    for (const auto& entry : resolver.resolve(url.host, std::to_string(url.port), error))
    {
        endpoints.push_back(entry.endpoint());
        addresses += (addresses.empty() ? "" : ", ") + TextOf(endpoints.back());
    }
    if (error || endpoints.empty())
    {
        m_findings.Fail(
            "name", url.host + " has no address: " + error.message(),
            "mend the name in broker.urls, or the host's resolver (getent hosts " + url.host + ")");
    }
    else
    {
        m_findings.Ok("name", url.host + " is " + (addresses == url.host ? "an address" : addresses));
    }
    return endpoints;
}

bool BrokerCheckup::Connect(const BrokerUrl& url, const Endpoints& endpoints)
{
    const std::string port = " port " + std::to_string(url.port);
    const std::string cure = "see that the broker runs and listens there, and that no firewall is in between";
    std::string reached;
    std::string trouble;
    for (const tcp::endpoint& endpoint : endpoints)
    {
        const std::string why = TroubleWith(endpoint, m_timeout);
        std::string& list = why.empty() ? reached : trouble;
        list += (list.empty() ? "" : ", ") + TextOf(endpoint) + (why.empty() ? "" : " (" + why + ")");
    }
    if (reached.empty())
    {
        m_findings.Fail("connection", url.host + port + " cannot be reached: " + trouble, cure);
    }
    else if (!trouble.empty())
    {
        m_findings.Warn(
            "connection", "of the addresses of " + url.host + port + " some cannot be reached: " + trouble, cure);
    }
    else
    {
        m_findings.Ok("connection", url.host + port + " can be reached");
    }
    return !reached.empty();
}

void BrokerCheckup::CheckCertificates(const CertificateExpiry& expiry)
{
    const std::int64_t now = std::time(nullptr);
    for (const auto& [name, notAfter] :
         {std::pair("the broker's certificate", expiry.broker),
          {"the client certificate", expiry.client},
          {"the authority", expiry.authority}})
    {
        const std::string text = std::string(name) + " is good until " + UtcText(notAfter);
        if (notAfter == 0)
        {
            continue;
        }
        if (notAfter < now + SOON)
        {
            m_findings.Warn("TLS", text, "renew it");
        }
        else
        {
            m_findings.Ok("TLS", text);
        }
    }
}

void BrokerCheckup::CheckRights(BrokerTrial& trial)
{
    const RmqInfo& names = m_config.broker.names;
    const bool hasExchange = CheckExchange(trial);
    CheckQueue(trial, PlainQueue(m_config.broker, names.deadLetterQueue, 0));
    const bool hasQueue = CheckQueue(trial, OwnQueue(m_config.broker, names.clientQueue));
    CheckQueue(trial, OwnQueue(m_config.broker, names.priorityQueue));
    if (hasExchange && hasQueue)
    {
        CheckBinding(trial);
    }
    CheckPublishing(trial);
    CheckManagement(trial);
}

bool BrokerCheckup::CheckExchange(BrokerTrial& trial)
{
    const RmqInfo& names = m_config.broker.names;
    const std::string name = "exchange " + names.exchange;
    const RequestResult there = trial.Link().DeclareExchange({names.exchange, names.exchangeType, true}, m_timeout);
    if (there.code == NOT_FOUND)
    {
        if (m_config.broker.exchangePassive)
        {
            m_findings.Fail(
                "exchange", "there is no " + name + ", and by broker.exchange_passive the agent does not declare it",
                "declare it on the broker");
        }
        else
        {
            m_findings.Ok("exchange", name + " is not there yet; the agent declares it");
        }
        return false;
    }
    const RequestResult same =
        m_config.broker.exchangePassive
            ? there
            : trial.Link().DeclareExchange({names.exchange, names.exchangeType, false}, m_timeout);
    if (same.answer == Answer::ok)
    {
        m_findings.Ok("exchange", name + " is as the agent wants it");
    }
    else
    {
        m_findings.Fail(
            "exchange", name + ": " + TextOf(same),
            same.code == ACCESS_REFUSED
                ? RightsCure() + "; or have the exchange declared by others and set broker.exchange_passive"
                : "make broker.exchange_type agree with the exchange, or name another by broker.exchange");
    }
    return there.answer == Answer::ok;
}

bool BrokerCheckup::CheckQueue(BrokerTrial& trial, const QueueSpec& queue)
{
    QueueCounts counts;
    const std::string name = "queue " + queue.name;
    const RequestResult there = trial.Link().CountMessages(queue.name, m_timeout, counts);
    if (there.code == NOT_FOUND)
    {
        m_findings.Ok("queues", name + " is not there yet; the agent declares it");
        return false;
    }
    QueueSpec compared = queue;
    compared.prefetch = 0;
    const RequestResult same = there.answer == Answer::ok ? trial.Link().DeclareQueue(compared, m_timeout) : there;
    if (same.answer != Answer::ok)
    {
        m_findings.Fail(
            "queues", name + ": " + TextOf(same),
            same.code == ACCESS_REFUSED
                ? RightsCure()
                : "make broker.queue_type agree with the queue, or delete the queue when it is empty");
        return there.answer == Answer::ok;
    }
    const std::string messages = std::to_string(counts.ready) + (counts.ready == 1 ? " message" : " messages");
    if (queue.name == m_config.broker.names.deadLetterQueue && counts.ready > 0)
    {
        m_findings.Warn(
            "queues", name + " has " + messages + " that nobody took", "qelctl dead-letters list " + m_config.id);
    }
    else if (counts.consumers > 1)
    {
        m_findings.Warn(
            "queues", name + " has " + std::to_string(counts.consumers) + " consumers",
            "see that no other agent has the id " + m_config.id);
    }
    else
    {
        m_findings.Ok("queues", name + " is as the agent wants it and has " + messages);
    }
    return true;
}

/** What is not bound can be unbound: the broker only looks whether we may. */
void BrokerCheckup::CheckBinding(BrokerTrial& trial)
{
    const RmqInfo& names = m_config.broker.names;
    const RequestResult result =
        trial.Link().Unbind({names.clientQueue, names.exchange, "qelctl.doctor." + RandomId()}, m_timeout);
    if (result.answer == Answer::ok)
    {
        m_findings.Ok("rights", m_user + " may bind topics on exchange " + names.exchange);
    }
    else
    {
        m_findings.Fail("rights", m_user + " may not bind topics: " + TextOf(result), RightsCure());
    }
}

/** A message that no queue takes is given back: the broker only looks whether we may. */
void BrokerCheckup::CheckPublishing(BrokerTrial& trial)
{
    OutgoingMessage message;
    message.routingKey = "qelctl.doctor." + RandomId();
    message.mandatory = true;
    message.deadline = m_timeout;
    std::string why;
    const PublishResult result = trial.Publish(std::move(message), why);
    if (result == PublishResult::noRoute)
    {
        m_findings.Ok("rights", m_user + " may publish to queues by their names");
    }
    else
    {
        m_findings.Fail(
            "rights",
            m_user + " may not publish to queues by their names, which parked and dead messages and pings need: " + why,
            RightsCure());
    }
}

void BrokerCheckup::CheckManagement(BrokerTrial& trial)
{
    const ManagementAddress& management = m_config.management;
    if (management.routingKey.empty())
    {
        return;
    }
    QueueCounts counts;
    const bool direct = management.exchange.empty();
    const std::string name = direct ? "queue " + management.routingKey : "exchange " + management.exchange;
    const RequestResult result = direct ? trial.Link().CountMessages(management.routingKey, m_timeout, counts)
                                        : trial.Link().DeclareExchange({management.exchange, "topic", true}, m_timeout);
    if (result.answer != Answer::ok)
    {
        m_findings.Fail(
            "management", "requests for configurations go to " + name + ": " + TextOf(result),
            "mend management.exchange and management.routing_key, or have it declared by the management plane");
    }
    else if (direct && counts.consumers == 0)
    {
        m_findings.Warn(
            "management", "nobody consumes " + name + ", to which requests for configurations go",
            "start the management plane");
    }
    else
    {
        m_findings.Ok("management", "requests for configurations go to " + name);
    }
}

std::string BrokerCheckup::RightsCure() const
{
    return "give the broker's user the rights: rabbitmqctl set_permissions USER CONFIGURE WRITE READ, each a pattern "
           "that "
           "fits the agent's exchange and queues, WRITE also amq.default";
}

} // namespace VtxQel

#include "broker/ConnectionSource.h"

#include "common/QelException.h"

namespace VtxQel
{

namespace
{

const char* Suffix(ConnectionUse use)
{
    switch (use)
    {
    case ConnectionUse::publishing:
        return " publishing";
    case ConnectionUse::trial:
        return " trial";
    case ConnectionUse::consuming:
        break;
    }
    return "";
}

} // namespace

ConnectionSource::ConnectionSource(boost::asio::io_context& io, const LinkSettings& settings, LinkState& state)
    : m_io(io), m_settings(settings), m_tls(io, settings.tls, state)
{
    if (settings.urls.empty())
    {
        throw RmqConnectionException("no broker URL");
    }
    for (const std::string& url : settings.urls)
    {
        BrokerUrl parsed = BrokerUrl::Parse(url);
        parsed.user = settings.user.empty() ? parsed.user : settings.user;
        parsed.password = settings.password.empty() ? parsed.password : settings.password;
        m_urls.push_back(std::move(parsed));
    }
}

std::shared_ptr<AmqpConnection> ConnectionSource::Make(
    std::size_t urlIndex, ConnectionUse use, AmqpConnectionHandler& handler)
{
    AmqpConnectionOptions options;
    options.url = m_urls[urlIndex];
    if (options.url.tls)
    {
        options.tls = m_tls.Read();
        options.external = !options.tls->files.certificateFile.empty();
        options.onBrokerCertificate = [this, url = options.url.Printable()](std::int64_t notAfter)
        { m_tls.OnBrokerCertificate(url, notAfter); };
    }
    options.connectionName = m_settings.connectionName + Suffix(use);
    options.heartbeat = m_settings.heartbeat;
    options.userTimeout = use != ConnectionUse::publishing;
    options.maxBody = m_settings.maxBodyBytes;
    return std::make_shared<AmqpConnection>(m_io, std::move(options), handler);
}

void ConnectionSource::UsePassword(const std::string& password)
{
    for (std::size_t index = 0; index < m_urls.size(); ++index)
    {
        m_urls[index].password = password.empty() ? BrokerUrl::Parse(m_settings.urls[index]).password : password;
    }
}

} // namespace VtxQel

#include "broker/BrokerUrl.h"

#include "common/Printable.h"
#include "common/QelException.h"

#include <amqp.h>

#include <vector>

namespace VtxQel
{

namespace
{

/** A URL with everything between the scheme and the last '@' left out. */
std::string WithoutSecrets(const std::string& url)
{
    const std::size_t at = url.rfind('@');
    if (at == std::string::npos)
    {
        return url;
    }
    const std::size_t scheme = url.find("://");
    return (scheme == std::string::npos ? "" : url.substr(0, scheme + 3)) + url.substr(at + 1);
}

} // namespace

BrokerUrl BrokerUrl::Parse(const std::string& url)
{
    // The library decodes the text in place.
    std::vector<char> text(url.c_str(), url.c_str() + url.size() + 1);
    amqp_connection_info defaults{};
    amqp_default_connection_info(&defaults);
    amqp_connection_info info = defaults;
    if (url.find('\0') != std::string::npos || amqp_parse_url(text.data(), &info) != AMQP_STATUS_OK)
    {
        throw RmqConnectionException(
            "malformed broker URL: " + VtxQel::Printable(WithoutSecrets(url)) +
            ": it must be amqp://HOST:PORT/VHOST or amqps://...");
    }
    BrokerUrl result;
    result.host = info.host;
    result.port = static_cast<std::uint16_t>(info.port);
    // A path of "/" alone means the default virtual host for everybody who writes such URLs.
    result.vhost = *info.vhost == '\0' ? "/" : info.vhost;
    result.user = info.user;
    result.password = info.password;
    result.namesUser = info.user != defaults.user;
    result.tls = info.ssl != 0;
    return result;
}

std::string BrokerUrl::Printable() const
{
    const bool isV6 = host.find(':') != std::string::npos;
    std::string text = tls ? "amqps://" : "amqp://";
    text.append(isV6 ? "[" : "").append(host).append(isV6 ? "]:" : ":").append(std::to_string(port)).append("/");
    return vhost == "/" ? text : text + vhost;
}

} // namespace VtxQel

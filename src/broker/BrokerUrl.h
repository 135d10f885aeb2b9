#pragma once

#include <cstdint>
#include <string>

namespace VtxQel
{

/** One broker address out of the configuration. A plain value; the password must not be printed. */
struct BrokerUrl
{
    std::string host;
    std::uint16_t port = 0;
    std::string vhost;
    std::string user;
    std::string password;
    /** The URL says which user, rather than leaving the broker's default. */
    bool namesUser = false;
    bool tls = false;

    /** Reads an amqp:// or amqps:// URL. @throws RmqConnectionException, without the URL's secrets, when malformed. */
    static BrokerUrl Parse(const std::string& url);

    /** The URL without user and password, for logs and status. */
    std::string Printable() const;
};

} // namespace VtxQel

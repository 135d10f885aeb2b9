#include "admin/ListenAddress.h"

#include "admin/AdminException.h"

#include <boost/asio/ip/address.hpp>

#include <charconv>
#include <memory>
#include <optional>
#include <uriparser/Uri.h>

namespace VtxQel
{

namespace
{

using boost::asio::ip::tcp;

struct HostAndPort
{
    std::string host;
    std::string port;
};

std::optional<HostAndPort> Split(const std::string& text)
{
    UriUriA uri;
    const char* errorAt = nullptr;
    const std::string whole = "tcp://" + text;
    if (uriParseSingleUriA(&uri, whole.c_str(), &errorAt) != URI_SUCCESS)
    {
        return std::nullopt;
    }
    const std::unique_ptr<UriUriA, void (*)(UriUriA*)> owner(&uri, uriFreeUriMembersA);
    if (uri.userInfo.first != nullptr || uri.pathHead != nullptr || uri.query.first != nullptr ||
        uri.fragment.first != nullptr || uri.hostText.first == nullptr)
    {
        return std::nullopt;
    }
    HostAndPort parts{{uri.hostText.first, uri.hostText.afterLast}, {}};
    if (uri.portText.first != nullptr)
    {
        parts.port.assign(uri.portText.first, uri.portText.afterLast);
    }
    return parts;
}

} // namespace

tcp::endpoint LoopbackEndpoint(const std::string& text)
{
    const std::optional<HostAndPort> parts = Split(text);
    boost::system::error_code failed;
    const auto address = boost::asio::ip::make_address(parts ? parts->host : std::string(), failed);
    std::uint16_t port = 0;
    const std::string digits = parts ? parts->port : std::string();
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (failed || digits.empty() || error != std::errc() || end != digits.data() + digits.size())
    {
        throw AdminException("must be an address and a port, for example 127.0.0.1:9477 or [::1]:9477, not " + text);
    }
    if (!address.is_loopback())
    {
        throw AdminException(
            address.to_string() + " is not an address of the loopback interface: everybody who reaches it could read "
                                  "the agent's state; use 127.0.0.1 or [::1] and a proxy that asks who is there");
    }
    return {address, port};
}

bool IsLoopbackHost(const std::string& host)
{
    const std::optional<HostAndPort> parts = Split(host);
    if (!parts)
    {
        return false;
    }
    boost::system::error_code failed;
    const auto address = boost::asio::ip::make_address(parts->host, failed);
    return parts->host == "localhost" || (!failed && address.is_loopback());
}

} // namespace VtxQel

#pragma once

#include "admin/AdminPort.h"

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <string>

namespace VtxQel
{

struct RequestTarget;

/**
 * AdminEndpoint answers the admin endpoint's requests; see docs/admin.md. It knows nothing of sockets. One thread.
 */
class AdminEndpoint
{
  public:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    /** Where a request came from. */
    enum class Origin
    {
        /** The Unix socket: somebody whom the file's mode lets in. */
        socket,
        /** TCP: any program of this host, a browser among them. */
        loopback
    };

    /** The port outlives the endpoint. */
    explicit AdminEndpoint(AdminPort& port) : m_port(port) {}

    /** Never throws for what a request holds. */
    Response Answer(const Request& request, Origin origin) const;

  private:
    Response Find(const Request& request, Origin origin) const;
    Response Ready(const Request& request) const;
    Response Routes(const RequestTarget& target) const;
    Response Explain(const RequestTarget& target) const;
    Response SetLogLevel(const Request& request, Origin origin) const;

    AdminPort& m_port;
};

} // namespace VtxQel

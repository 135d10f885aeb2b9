#pragma once

#include "admin/AdminEndpoint.h"

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

namespace VtxQel
{

/**
 * AdminSession is one connection to the admin endpoint: it reads requests and writes their answers, one after the
 * other, each within a deadline. It keeps itself alive until the connection ends. Lives on the server's thread.
 */
class AdminSession : public std::enable_shared_from_this<AdminSession>
{
  public:
    using Socket = boost::asio::generic::stream_protocol::socket;

    /** The endpoint outlives the session. @param onEnd called when the session is destroyed. */
    AdminSession(
        Socket socket, const AdminEndpoint& endpoint, AdminEndpoint::Origin origin, std::function<void()> onEnd);
    ~AdminSession();
    AdminSession(const AdminSession&) = delete;
    AdminSession& operator=(const AdminSession&) = delete;

    void Start() { Read(); }
    /** Answers that there are too many connections, whatever is asked, and ends. */
    void TurnAway();

  private:
    void Read();
    void OnRead(const boost::beast::error_code& error);
    void Write(AdminEndpoint::Response response);
    void OnWritten(const boost::beast::error_code& error);
    void Close();

    boost::beast::basic_stream<boost::asio::generic::stream_protocol> m_stream;
    const AdminEndpoint& m_endpoint;
    const AdminEndpoint::Origin m_origin;
    const std::function<void()> m_onEnd;
    boost::beast::flat_buffer m_buffer;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> m_parser;
    std::optional<AdminEndpoint::Response> m_response;
    bool m_first = true;
};

} // namespace VtxQel

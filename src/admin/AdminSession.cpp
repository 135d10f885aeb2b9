#include "admin/AdminSession.h"

#include "admin/StatusJson.h"

#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

#include <chrono>
#include <utility>

namespace VtxQel
{

namespace http = boost::beast::http;
using boost::beast::error_code;

namespace
{

constexpr std::size_t MOST_HEADER_BYTES = 16384;
constexpr std::size_t MOST_BODY_BYTES = 4096;
constexpr std::chrono::seconds DEADLINE{10};
constexpr std::chrono::seconds IDLE{30};

/** An answer after which the connection ends. */
AdminEndpoint::Response LastAnswer(http::status status, const std::string& text)
{
    AdminEndpoint::Response response;
    response.result(status);
    response.set(http::field::content_type, "application/json");
    response.keep_alive(false);
    response.body() = ErrorJson(text);
    response.prepare_payload();
    return response;
}

std::optional<AdminEndpoint::Response> AnswerTo(const error_code& error)
{
    if (error == http::error::header_limit)
    {
        return LastAnswer(http::status::request_header_fields_too_large, "the header is too large");
    }
    if (error == http::error::body_limit)
    {
        return LastAnswer(http::status::payload_too_large, "the body is too large");
    }
    if (error.category() == make_error_code(http::error::bad_method).category() &&
        error != http::error::end_of_stream && error != http::error::partial_message)
    {
        return LastAnswer(http::status::bad_request, "this is not HTTP: " + error.message());
    }
    return std::nullopt;
}

} // namespace

AdminSession::AdminSession(
    Socket socket, const AdminEndpoint& endpoint, AdminEndpoint::Origin origin, std::function<void()> onEnd)
    : m_stream(std::move(socket)), m_endpoint(endpoint), m_origin(origin), m_onEnd(std::move(onEnd)),
      m_buffer(MOST_HEADER_BYTES + MOST_BODY_BYTES)
{
}

AdminSession::~AdminSession()
{
    m_onEnd();
}

void AdminSession::TurnAway()
{
    m_stream.expires_after(DEADLINE);
    Write(LastAnswer(http::status::service_unavailable, "too many connections to the admin endpoint"));
}

void AdminSession::Read()
{
    m_parser.emplace();
    m_parser->header_limit(MOST_HEADER_BYTES);
    m_parser->body_limit(MOST_BODY_BYTES);
    m_stream.expires_after(std::exchange(m_first, false) ? DEADLINE : IDLE);
    http::async_read(
        m_stream, m_buffer, *m_parser,
        [self = shared_from_this()](const error_code& error, std::size_t) { self->OnRead(error); });
}

void AdminSession::OnRead(const error_code& error)
{
    if (!error)
    {
        Write(m_endpoint.Answer(m_parser->get(), m_origin));
    }
    else if (auto answer = AnswerTo(error))
    {
        Write(std::move(*answer));
    }
    else
    {
        Close();
    }
}

void AdminSession::Write(AdminEndpoint::Response response)
{
    m_response = std::move(response);
    m_stream.expires_after(DEADLINE);
    http::async_write(
        m_stream, *m_response,
        [self = shared_from_this()](const error_code& error, std::size_t) { self->OnWritten(error); });
}

void AdminSession::OnWritten(const error_code& error)
{
    if (error || m_response->need_eof())
    {
        Close();
        return;
    }
    Read();
}

void AdminSession::Close()
{
    error_code ignored;
    m_stream.socket().shutdown(Socket::shutdown_send, ignored);
    m_stream.close();
}

} // namespace VtxQel

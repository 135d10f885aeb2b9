#include "AdminClient.h"

#include "Failure.h"

#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace VtxQel
{

namespace
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using Stream = beast::basic_stream<asio::local::stream_protocol>;
using Request = http::request<http::string_body>;

constexpr unsigned HTTP_VERSION = 11;
/** An answer is at most a page of routes or the state of some hundred applications. */
constexpr std::uint64_t LARGEST_ANSWER = 67108864;
constexpr unsigned FIRST_ERROR = 400;

/** One exchange; the stream's deadline ends it. */
class Exchange
{
  public:
    Exchange(const std::string& socket, const Request& request, std::chrono::milliseconds timeout)
        : m_request(request), m_stream(m_io)
    {
        m_parser.body_limit(LARGEST_ANSWER);
        m_stream.expires_after(timeout);
        m_stream.async_connect(
            asio::local::stream_protocol::endpoint(socket),
            [this](const beast::error_code& error) { OnConnected(error); });
        m_io.run();
    }

    const beast::error_code& Error() const { return m_error; }
    AdminAnswer Answer() const { return {m_parser.get().result_int(), m_parser.get().body()}; }

  private:
    void OnConnected(const beast::error_code& error)
    {
        m_error = error;
        if (!error)
        {
            http::async_write(
                m_stream, m_request, [this](const beast::error_code& failed, std::size_t) { OnWritten(failed); });
        }
    }

    void OnWritten(const beast::error_code& error)
    {
        m_error = error;
        if (!error)
        {
            http::async_read(
                m_stream, m_buffer, m_parser,
                [this](const beast::error_code& failed, std::size_t) { m_error = failed; });
        }
    }

    asio::io_context m_io;
    const Request& m_request;
    Stream m_stream;
    beast::flat_buffer m_buffer;
    http::response_parser<http::string_body> m_parser;
    beast::error_code m_error;
};

AdminAnswer Send(const std::string& socket, Request request, std::chrono::milliseconds timeout)
{
    request.set(http::field::host, "qel");
    request.set(http::field::user_agent, "qelctl");
    request.keep_alive(false);
    request.prepare_payload();
    if (socket.size() > asio::local::stream_protocol::endpoint().capacity() - sizeof(sa_family_t) - 1)
    {
        throw UsageError("the socket's path " + socket + " is too long: use a shorter runtime directory");
    }
    const Exchange exchange(socket, request, timeout);
    if (exchange.Error())
    {
        throw Failure(
            "no agent answers on " + socket + ": " + exchange.Error().message() +
                "; is it running, is this its runtime directory, and may this user (root, or the group qel) ask it?",
            AdminClient::NO_AGENT);
    }
    return exchange.Answer();
}

} // namespace

std::string DefaultRuntimeDirectory()
{
    const char* const directory = std::getenv("QEL_RUNTIME_DIRECTORY");
    return directory == nullptr ? "/run/qel" : directory;
}

void AdminClient::Register(CLI::App& verb)
{
    verb.add_option("--runtime-directory", m_runtimeDirectory, "The agent's runtime directory (default /run/qel)")
        ->type_name("DIR");
}

AdminAnswer AdminClient::Get(const std::string& target, std::chrono::milliseconds timeout) const
{
    return Send(Socket(), Request(http::verb::get, target, HTTP_VERSION), timeout);
}

AdminAnswer AdminClient::Put(
    const std::string& target, const std::string& body, std::chrono::milliseconds timeout) const
{
    return Send(Socket(), Request(http::verb::put, target, HTTP_VERSION, body), timeout);
}

std::string AdminClient::Fetch(const std::string& target, std::chrono::milliseconds timeout) const
{
    AdminAnswer answer = Get(target, timeout);
    if (answer.status >= FIRST_ERROR)
    {
        throw Failure("the agent answered " + std::to_string(answer.status) + ": " + answer.body);
    }
    return std::move(answer.body);
}

std::string UrlEncoded(const std::string& text)
{
    std::string encoded;
    for (const char letter : text)
    {
        const auto octet = static_cast<unsigned char>(letter);
        if (std::isalnum(octet) != 0 || letter == '.' || letter == '_' || letter == '-')
        {
            encoded += letter;
            continue;
        }
        char escape[4];
        std::snprintf(escape, sizeof(escape), "%%%02X", octet);
        encoded += escape;
    }
    return encoded;
}

} // namespace VtxQel

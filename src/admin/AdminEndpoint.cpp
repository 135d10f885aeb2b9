#include "admin/AdminEndpoint.h"

#include "admin/AdminException.h"
#include "admin/ListenAddress.h"
#include "admin/Metrics.h"
#include "admin/RequestTarget.h"
#include "admin/StatusJson.h"
#include "admin/StatusPage.h"

#include <boost/beast/http/field.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

namespace VtxQel
{

namespace http = boost::beast::http;

namespace
{

constexpr const char* TEXT = "text/plain; charset=utf-8";
constexpr const char* JSON = "application/json";
constexpr const char* METRICS = "text/plain; version=0.0.4; charset=utf-8";
constexpr std::size_t MOST_ROUTES = 500;

AdminEndpoint::Response Make(http::status status, const char* type, std::string body)
{
    AdminEndpoint::Response response;
    response.result(status);
    response.set(http::field::content_type, type);
    response.body() = std::move(body);
    return response;
}

AdminEndpoint::Response Error(http::status status, const std::string& text)
{
    return Make(status, JSON, ErrorJson(text));
}

AdminEndpoint::Response WrongMethod(const char* allowed)
{
    AdminEndpoint::Response response = Error(http::status::method_not_allowed, std::string("allowed is ") + allowed);
    response.set(http::field::allow, allowed);
    return response;
}

template <class Number>
std::optional<Number> ToNumber(std::string_view text)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/** The number of a query's item; the default when it is absent. @throws AdminException */
std::size_t NumberOf(const RequestTarget& target, const std::string& name, std::size_t absent)
{
    const auto item = target.query.find(name);
    if (item == target.query.end())
    {
        return absent;
    }
    const auto number = ToNumber<std::size_t>(item->second);
    if (!number)
    {
        throw AdminException(name + " must be a whole number");
    }
    return *number;
}

/** The text of a query's item; empty when it is absent. */
std::string TextOf(const RequestTarget& target, const std::string& name)
{
    const auto item = target.query.find(name);
    return item == target.query.end() ? std::string() : item->second;
}

bool WantsJson(const AdminEndpoint::Request& request)
{
    return request[http::field::accept].find(JSON) != boost::beast::string_view::npos;
}

AdminEndpoint::Response Page()
{
    const StatusPage page = StatusPage::Make();
    AdminEndpoint::Response response = Make(http::status::ok, "text/html; charset=utf-8", page.html);
    response.set("Content-Security-Policy", page.contentSecurityPolicy);
    return response;
}

} // namespace

AdminEndpoint::Response AdminEndpoint::Answer(const Request& request, Origin origin) const
{
    Response response = Find(request, origin);
    response.version(request.version());
    response.keep_alive(request.keep_alive());
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("Referrer-Policy", "no-referrer");
    response.content_length(response.body().size());
    if (request.method() == http::verb::head)
    {
        response.body().clear();
    }
    return response;
}

AdminEndpoint::Response AdminEndpoint::Find(const Request& request, Origin origin) const
{
    if (origin == Origin::loopback && !IsLoopbackHost(std::string(request[http::field::host])))
    {
        // A web page whose name was made to resolve to this host must not get to speak to us.
        return Error(http::status::misdirected_request, "the Host must be a loopback name or address");
    }
    try
    {
        const RequestTarget target = RequestTarget::Parse(std::string(request.target()));
        const std::string& path = target.path;
        if (path == "/log-level")
        {
            return request.method() == http::verb::put ? SetLogLevel(request, origin) : WrongMethod("PUT");
        }
        const bool known = path == "/" || path == "/livez" || path == "/readyz" || path == "/metrics" ||
                           path == "/status" || path == "/routes" || path == "/explain";
        if (!known)
        {
            return Error(http::status::not_found, "there is no such page");
        }
        if (request.method() != http::verb::get && request.method() != http::verb::head)
        {
            return WrongMethod("GET, HEAD");
        }
        return path == "/livez"     ? Make(http::status::ok, TEXT, "live\n")
               : path == "/readyz"  ? Ready(request)
               : path == "/metrics" ? Make(http::status::ok, METRICS, MetricsText(m_port.Status()))
               : path == "/status"  ? Make(http::status::ok, JSON, StatusJson(m_port.Status()))
               : path == "/routes"  ? Routes(target)
               : path == "/explain" ? Explain(target)
                                    : Page();
    }
    catch (const AdminException& error)
    {
        return Error(http::status::bad_request, error.what());
    }
}

AdminEndpoint::Response AdminEndpoint::Ready(const Request& request) const
{
    const std::vector<std::string> reasons = m_port.NotReady();
    const http::status status = reasons.empty() ? http::status::ok : http::status::service_unavailable;
    if (WantsJson(request))
    {
        return Make(status, JSON, ReadinessJson(reasons));
    }
    std::string text = reasons.empty() ? "ready\n" : "";
    for (const std::string& reason : reasons)
    {
        text += reason + "\n";
    }
    return Make(status, TEXT, text);
}

AdminEndpoint::Response AdminEndpoint::Routes(const RequestTarget& target) const
{
    RouteQuery query;
    query.search = TextOf(target, "search");
    query.application = TextOf(target, "application");
    query.offset = NumberOf(target, "offset", 0);
    query.limit = std::min(NumberOf(target, "limit", query.limit), MOST_ROUTES);
    return Make(http::status::ok, JSON, RoutesJson(query, m_port.Routes(query)));
}

AdminEndpoint::Response AdminEndpoint::Explain(const RequestTarget& target) const
{
    if (!target.query.contains("key"))
    {
        throw AdminException("key must be given: the routing key");
    }
    const ExplainQuery query{
        TextOf(target, "key"), TextOf(target, "queue"), TextOf(target, "type"), TextOf(target, "app-id")};
    return Make(http::status::ok, JSON, ExplanationJson(query, m_port.Explain(query)));
}

AdminEndpoint::Response AdminEndpoint::SetLogLevel(const Request& request, Origin origin) const
{
    if (origin == Origin::loopback)
    {
        return Error(http::status::forbidden, "the log level can only be set by the Unix socket");
    }
    std::string_view text = request.body();
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    {
        text.remove_suffix(1);
    }
    const auto level = ToNumber<int>(text);
    if (!level || *level < 0 || *level > 7)
    {
        return Error(http::status::bad_request, "the body must be a level from 0 to 7");
    }
    m_port.SetLogLevel(*level);
    return Make(http::status::ok, TEXT, std::to_string(*level) + "\n");
}

} // namespace VtxQel

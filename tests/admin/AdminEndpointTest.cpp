#include "admin/AdminEndpoint.h"

#include "admin/FakeAdminPort.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

namespace VtxQel
{
namespace
{

using Origin = AdminEndpoint::Origin;
using Request = AdminEndpoint::Request;
using Response = AdminEndpoint::Response;
using nlohmann::json;
using testing::HasSubstr;
namespace http = boost::beast::http;

class AdminEndpointTest : public testing::Test
{
  protected:
    Response Send(Request request, Origin origin = Origin::socket)
    {
        if (request.count(http::field::host) == 0)
        {
            request.set(http::field::host, "localhost");
        }
        return endpoint.Answer(request, origin);
    }
    Response Get(const std::string& target) { return Send({http::verb::get, target, 11}); }
    Response Put(const std::string& target, const std::string& body, Origin origin = Origin::socket)
    {
        Request request{http::verb::put, target, 11};
        request.body() = body;
        return Send(request, origin);
    }

    FakeAdminPort port;
    AdminEndpoint endpoint{port};
};

TEST_F(AdminEndpointTest, LivezSaysLive)
{
    const Response response = Get("/livez");
    EXPECT_EQ(response.result(), http::status::ok);
    EXPECT_EQ(response.body(), "live\n");
}

TEST_F(AdminEndpointTest, ReadyzIsOkWithoutReasons)
{
    const Response response = Get("/readyz");
    EXPECT_EQ(response.result(), http::status::ok);
    EXPECT_EQ(response.body(), "ready\n");
}

TEST_F(AdminEndpointTest, ReadyzGivesEveryReasonOnALineOfItsOwn)
{
    port.notReady = {"no connection", "no probe"};
    const Response response = Get("/readyz");
    EXPECT_EQ(response.result(), http::status::service_unavailable);
    EXPECT_EQ(response.body(), "no connection\nno probe\n");
}

TEST_F(AdminEndpointTest, ReadyzSpeaksJsonWhenAsked)
{
    port.notReady = {"no \"probe\""};
    Request request{http::verb::get, "/readyz", 11};
    request.set(http::field::accept, "text/html;q=0.5, application/json");
    const Response response = Send(request);
    EXPECT_EQ(response.result(), http::status::service_unavailable);
    EXPECT_EQ(response[http::field::content_type], "application/json");
    EXPECT_EQ(json::parse(response.body()), json({{"ready", false}, {"reasons", {"no \"probe\""}}}));
}

TEST_F(AdminEndpointTest, ExplainAsksForTheMessageThatTheQueryDescribes)
{
    port.explanation.exchange = "qel";
    port.explanation.copies = {
        {"q",
         {{"a.*", "in_force", {"web"}}},
         true,
         "a.b",
         "topic",
         "other_copy",
         {{"web", "live", 2, "because"}},
         "w"}};
    const Response response = Get("/explain?key=a%2Eb&queue=q&type=t&app-id=web");

    EXPECT_EQ(response.result(), http::status::ok);
    EXPECT_EQ(port.lastExplained->routingKey, "a.b");
    EXPECT_EQ(port.lastExplained->queue, "q");
    EXPECT_EQ(port.lastExplained->type, "t");
    EXPECT_EQ(port.lastExplained->appId, "web");
    EXPECT_EQ(json::parse(response.body()), json::parse(R"({
        "exchange": "qel", "routingKey": "a.b", "type": "t", "appId": "web", "why": "",
        "copies": [{"queue": "q", "bindings": [{"topic": "a.*", "state": "inForce", "applications": ["web"]}],
            "named": true, "route": {"key": "a.b", "kind": "topic"}, "goesTo": "otherCopy", "why": "w",
            "receivers": [{"application": "web", "flow": "live", "instances": 2, "why": "because"}]}]})"));
}

TEST_F(AdminEndpointTest, ExplainWantsAKeyWhichMayBeEmpty)
{
    EXPECT_EQ(Get("/explain").result(), http::status::bad_request);
    EXPECT_FALSE(port.lastExplained);
    EXPECT_EQ(Get("/explain?key=").result(), http::status::ok);
    EXPECT_EQ(port.lastExplained->routingKey, "");
}

TEST_F(AdminEndpointTest, HeadHasTheLengthOfTheBodyAndNoBody)
{
    const Response response = Send({http::verb::head, "/livez", 11});
    EXPECT_EQ(response.result(), http::status::ok);
    EXPECT_EQ(response[http::field::content_length], "5");
    EXPECT_EQ(response.body(), "");
}

TEST_F(AdminEndpointTest, UnknownPagesAreNotFound)
{
    EXPECT_EQ(Get("/nothing").result(), http::status::not_found);
    EXPECT_EQ(Get("/livez/").result(), http::status::not_found);
    EXPECT_EQ(Get("//").result(), http::status::not_found);
}

TEST_F(AdminEndpointTest, AWrongMethodIsAnsweredWithTheRightOnes)
{
    const Response response = Put("/status", "");
    EXPECT_EQ(response.result(), http::status::method_not_allowed);
    EXPECT_EQ(response[http::field::allow], "GET, HEAD");
    EXPECT_EQ(Get("/log-level")[http::field::allow], "PUT");
}

TEST_F(AdminEndpointTest, ATargetThatIsNoPathIsABadRequest)
{
    EXPECT_EQ(Get("livez").result(), http::status::bad_request);
    EXPECT_EQ(Get("/a b").result(), http::status::bad_request);
    EXPECT_EQ(Get("/%zz").result(), http::status::bad_request);
}

TEST_F(AdminEndpointTest, LogLevelIsSet)
{
    const Response response = Put("/log-level", "6\n");
    EXPECT_EQ(response.result(), http::status::ok);
    EXPECT_EQ(response.body(), "6\n");
    EXPECT_EQ(port.level, 6);
}

TEST_F(AdminEndpointTest, LogLevelsThatAreNoneAreRefused)
{
    for (const char* level : {"", "8", "-1", "four", "4x", "99999999999"})
    {
        EXPECT_EQ(Put("/log-level", level).result(), http::status::bad_request) << level;
    }
    EXPECT_EQ(port.level, std::nullopt);
}

TEST_F(AdminEndpointTest, LogLevelIsNotSetByTcp)
{
    EXPECT_EQ(Put("/log-level", "6", Origin::loopback).result(), http::status::forbidden);
    EXPECT_EQ(port.level, std::nullopt);
}

TEST_F(AdminEndpointTest, ATcpRequestForAnotherHostIsRefused)
{
    Request request{http::verb::get, "/status", 11};
    for (const char* host : {"evil.example", "evil.example:9477", "127.0.0.1.evil.example", "10.0.0.1", ""})
    {
        request.set(http::field::host, host);
        EXPECT_EQ(Send(request, Origin::loopback).result(), http::status::misdirected_request) << host;
        EXPECT_EQ(Send(request, Origin::socket).result(), http::status::ok) << host;
    }
    for (const char* host : {"localhost", "localhost:9477", "127.0.0.1:9477", "[::1]:9477"})
    {
        request.set(http::field::host, host);
        EXPECT_EQ(Send(request, Origin::loopback).result(), http::status::ok) << host;
    }
}

TEST_F(AdminEndpointTest, RoutesTakesTheQueryApart)
{
    port.routes.total = 7;
    port.routes.matching = 1;
    port.routes.rows = {{"topic", "a b", "queue", "in_force", {"web", "mail"}}};
    const Response response = Get("/routes?search=a%20b%26&offset=20&limit=9999");
    EXPECT_EQ(port.lastQuery->search, "a b&");
    EXPECT_EQ(port.lastQuery->offset, 20U);
    EXPECT_EQ(port.lastQuery->limit, 500U);
    const json body = json::parse(response.body());
    EXPECT_EQ(body["total"], 7);
    EXPECT_EQ(body["routes"][0]["state"], "inForce");
    EXPECT_EQ(body["routes"][0]["applications"], json({"web", "mail"}));
}

TEST_F(AdminEndpointTest, RoutesRefusesNumbersThatAreNone)
{
    EXPECT_EQ(Get("/routes?offset=-1").result(), http::status::bad_request);
    EXPECT_EQ(Get("/routes?limit=many").result(), http::status::bad_request);
}

TEST_F(AdminEndpointTest, StatusIsJsonWhateverBytesThereAre)
{
    port.status.connection.lastError = "caf\xe9";
    const Response response = Get("/status");
    EXPECT_EQ(response[http::field::content_type], "application/json");
    EXPECT_EQ(json::parse(response.body())["connection"]["lastError"], "caf\xef\xbf\xbd");
}

TEST_F(AdminEndpointTest, StatusNamesCountsInCamelCaseAndUnknownTimesNull)
{
    port.status.deadLetters = {{"no_application", 3}};
    const json body = json::parse(Get("/status").body());
    EXPECT_EQ(body["deadLetters"]["noApplication"], 3);
    EXPECT_TRUE(body["connection"]["connectedSince"].is_null());
    EXPECT_TRUE(body["loopProbe"]["roundTripSeconds"].is_null());
    EXPECT_EQ(body["agent"]["startedAt"], "1970-01-01T00:00:00.000Z");
}

TEST_F(AdminEndpointTest, MetricsHaveTypeHelpAndLabels)
{
    LaneFigures lane;
    lane.name = "normal";
    lane.settled = {{"done", 5}};
    lane.latency.counts[0] = 4;
    lane.latency.counts.back() = 1;
    port.status.lanes = {lane};
    const std::string text = Get("/metrics").body();
    EXPECT_THAT(text, HasSubstr("# TYPE qel_lane_settled_total counter\n"));
    EXPECT_THAT(text, HasSubstr("qel_lane_settled_total{lane=\"normal\",outcome=\"done\"} 5\n"));
    EXPECT_THAT(text, HasSubstr("qel_lane_settlement_seconds_bucket{lane=\"normal\",le=\"0.0001\"} 4\n"));
    EXPECT_THAT(text, HasSubstr("qel_lane_settlement_seconds_bucket{lane=\"normal\",le=\"+Inf\"} 5\n"));
}

TEST_F(AdminEndpointTest, ThePageAllowsItselfOnly)
{
    const Response first = Get("/");
    const Response second = Get("/");
    EXPECT_EQ(first[http::field::content_type], "text/html; charset=utf-8");
    const std::string policy(first["Content-Security-Policy"]);
    EXPECT_THAT(policy, HasSubstr("default-src 'none'"));
    EXPECT_NE(policy, second["Content-Security-Policy"]);
    const auto nonce = policy.substr(policy.find("'nonce-") + 7, 32);
    EXPECT_THAT(first.body(), HasSubstr("<script nonce=\"" + nonce + "\">"));
    EXPECT_THAT(first.body(), HasSubstr("<style nonce=\"" + nonce + "\">"));
}

} // namespace
} // namespace VtxQel

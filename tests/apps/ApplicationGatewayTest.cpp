#include "apps/ApplicationGateway.h"

#include "apps/AppsException.h"
#include "apps/GatewayFixture.h"
#include "fakes/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <fstream>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace VtxQel
{
namespace
{

namespace proto = qel::apps::v1;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> BodiesOf(const std::vector<proto::Delivery>& deliveries)
{
    std::vector<std::string> bodies;
    bodies.reserve(deliveries.size());
    for (const proto::Delivery& delivery : deliveries)
    {
        bodies.push_back(delivery.body());
    }
    return bodies;
}

/** Whether the peer closes the connection, which is waited for. */
bool IsClosedByPeer(int socket)
{
    std::array<char, 256> buffer = {};
    ssize_t count = 0;
    do
    {
        count = ::recv(socket, buffer.data(), buffer.size(), 0);
    } while (count > 0);
    return count == 0 || errno == ECONNRESET;
}

TEST_F(GatewayTest, SocketsHaveTheirModeInAPassableFolder)
{
    struct stat info = {};
    ASSERT_EQ(::stat(PathOf("first").c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777U, 0660U);
    ASSERT_EQ(::stat((m_folder.Path() + "/apps").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0755U);
}

TEST_F(GatewayTest, WelcomeTellsNameVersionWindowAndConfiguration)
{
    m_subscriptions.BeginConfiguration("first");
    m_subscriptions.AddTopic("first", "a.b", "client");
    m_subscriptions.AddQueue("first", "q");
    m_subscriptions.Commit("first");
    TestClient client(PathOf("first"));
    const proto::Welcome welcome = client.Attach(3);
    EXPECT_EQ(welcome.application(), "first");
    EXPECT_EQ(welcome.agent_version(), "1.2.3");
    EXPECT_EQ(welcome.window(), 3U);
    EXPECT_EQ(welcome.configuration().state(), proto::Configuration::APPLIED);
    EXPECT_THAT(welcome.configuration().topics(), ElementsAre("a.b"));
    EXPECT_THAT(welcome.configuration().queues(), ElementsAre("q"));
    EXPECT_FALSE(welcome.configuration().incomplete());
}

TEST_F(GatewayTest, WelcomeTellsTheBrokersStateAndTheOrderingKey)
{
    m_settings[1].orderingKey = "header:customer";
    Reload();
    TestClient early(PathOf("first"));
    const proto::Welcome before = early.Attach();
    EXPECT_EQ(before.broker().state(), proto::Broker::DISCONNECTED);
    EXPECT_EQ(before.ordering_key(), "");
    m_gateway.BrokerChanged(BrokerState::connected);
    TestClient late(PathOf("second"));
    const proto::Welcome after = late.Attach();
    EXPECT_EQ(after.broker().state(), proto::Broker::CONNECTED);
    EXPECT_EQ(after.ordering_key(), "header:customer");
}

TEST_F(GatewayTest, ChangesOfTheConnectionToTheBrokerArePushedOnce)
{
    m_gateway.BrokerChanged(BrokerState::connected);
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    m_gateway.BrokerChanged(BrokerState::connected);
    m_gateway.BrokerChanged(BrokerState::blocked);
    EXPECT_EQ(client.Read()->broker().state(), proto::Broker::BLOCKED);
    m_gateway.BrokerChanged(BrokerState::disconnected);
    EXPECT_EQ(client.Read()->broker().state(), proto::Broker::DISCONNECTED);
    Dispatch("first", {"a"});
    EXPECT_THAT(BodiesOf(client.ReadDeliveries(1)), ElementsAre("a"));
}

TEST_F(GatewayTest, ADeliveryHasAKeyThatNamesItsMessage)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    FakeMessage message{.body = "named"};
    message.properties.messageId = "order 17%\xFF";
    DispatchOne("first", message);
    DispatchOne("first", message);
    Dispatch("first", {"nameless"});
    const auto deliveries = client.ReadDeliveries(3);
    ASSERT_EQ(deliveries.size(), 3U);
    EXPECT_EQ(deliveries[0].idempotency_key(), "first/order%2017%25%FF");
    EXPECT_EQ(deliveries[1].idempotency_key(), deliveries[0].idempotency_key());
    EXPECT_EQ(deliveries[2].idempotency_key(), "");
}

TEST_F(GatewayTest, AnInstanceThatDetachesAnswersWhatItHasAndEndsWell)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first", 2);
    Dispatch("first", {"a", "b", "c"});
    EXPECT_THAT(BodiesOf(client.ReadDeliveries(2)), ElementsAre("a", "b"));
    client.SendDetach();
    client.SendVerdict(1);
    client.SendDetach();
    client.SendVerdict(2, proto::Verdict::DEAD);
    EXPECT_TRUE(client.Finish().ok());
    EXPECT_THAT(m_log.Take(), ElementsAre("a done", "b dead:why", "c park"));
    EXPECT_EQ(m_applications.Find("first")->Snapshot().sessions, 0U);
}

TEST_F(GatewayTest, AnInstanceThatDetachesWithNothingInHandEndsAtOnce)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    client.SendDetach();
    EXPECT_TRUE(client.Finish().ok());
}

TEST_F(GatewayTest, TheLogHasWhoComesAndGoesAndWhoBreaksARule)
{
    const Fakes::LogCapture log(5);
    const auto hasLines = [&log](std::size_t count) { return [&log, count] { return log.Lines().size() == count; }; };
    TestClient good(PathOf("first"));
    good.Attach(3);
    good.SendDetach();
    EXPECT_TRUE(good.Finish().ok());
    EXPECT_TRUE(Eventually(hasLines(2)));
    for (int time = 0; time < 3; ++time)
    {
        TestClient nameless(PathOf("second"));
        nameless.Open();
        nameless.SendHello(70000, "");
        nameless.Finish();
    }
    // So that nothing more is written to a log that is gone.
    m_gateway.Stop(std::chrono::milliseconds(0));
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(
            "5 qel - application first: instance test attached with a window of 3",
            "5 qel - application first: instance test detached: its stream has ended",
            "4 qel - application second: ended instance without a name: the window is 70000: ask for 1 to 65535 "
            "deliveries (0 more since the last such line)"));
}

TEST_F(GatewayTest, AWrongVerdictWhileDetachingIsStillWrong)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", {"a"});
    client.ReadDeliveries(1);
    client.SendDetach();
    client.SendVerdict(2);
    EXPECT_EQ(client.Finish().error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_THAT(m_log.Take(), ElementsAre("a park"));
}

TEST_F(GatewayTest, BytesThatAreNoRequestAreRefusedWithWhatToDo)
{
    const std::string text = "send what the interface's .proto file describes";
    const std::string instanceThatIsNoText("\x0a\x03\x0a\x01\xff");
    const std::string exchangeThatIsNoText("\x0a\x01\xff");
    for (const auto& [method, bytes] :
         {std::pair("Attach", instanceThatIsNoText),
          {"Attach", "\xff"},
          {"Publish", exchangeThatIsNoText},
          {"Publish", "\xff"},
          {"RequestConfiguration", "\xff"}})
    {
        const grpc::Status status = CallRaw(PathOf("first"), method, bytes).first;
        EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT) << method;
        EXPECT_THAT(status.error_message(), HasSubstr(text)) << method;
    }
    EXPECT_THAT(m_publisher.Messages(), IsEmpty());
    EXPECT_THAT(m_asked, IsEmpty());
}

/** What a program of a later version may say. */
template <typename Message>
Message& WithUnknownField(Message& message)
{
    message.GetReflection()->MutableUnknownFields(&message)->AddLengthDelimited(1000, "news");
    return message;
}

TEST_F(GatewayTest, WhatOnlyANewerApplicationSaysIsIgnored)
{
    TestClient client(PathOf("first"));
    client.Open();
    proto::AttachRequest request;
    WithUnknownField(request);
    WithUnknownField(*request.mutable_hello()).set_window(4);
    client.Send(request);
    EXPECT_EQ(client.Read()->welcome().window(), 4U);
    request.clear_kind();
    client.Send(request);
    MakeLive("first");
    Dispatch("first", {"a", "b"});
    client.ReadDeliveries(2);
    auto& verdict = WithUnknownField(*WithUnknownField(*request.mutable_verdicts()).add_verdicts());
    verdict.set_delivery_id(1);
    verdict.set_kind(proto::Verdict::DONE);
    client.Send(request);
    WithUnknownField(*request.mutable_detach());
    client.Send(request);
    client.SendVerdict(2);
    EXPECT_TRUE(client.Finish().ok());
    EXPECT_THAT(m_log.Take(), ElementsAre("a done", "b done"));
    proto::PublishRequest publish;
    WithUnknownField(publish).set_body("b");
    EXPECT_TRUE(CallRaw(PathOf("first"), "Publish", publish.SerializeAsString()).first.ok());
}

TEST_F(GatewayTest, MoreStreamsThanAllowedAreRefusedAndPlacesBecomeFreeAgain)
{
    TestClient half(PathOf("first"));
    TestClient otherHalf(PathOf("first"));
    std::vector<std::unique_ptr<grpc::ClientContext>> contexts;
    std::vector<std::unique_ptr<grpc::ClientReaderWriter<proto::AttachRequest, proto::AttachResponse>>> streams;
    proto::AttachRequest hello;
    hello.mutable_hello();
    proto::AttachResponse response;
    const auto attach = [&]
    {
        contexts.push_back(std::make_unique<grpc::ClientContext>());
        contexts.back()->set_wait_for_ready(true);
        auto& client = contexts.size() % 2 == 0 ? half : otherHalf;
        streams.push_back(client.GetStub().Attach(contexts.back().get()));
        return streams.back()->Write(hello) && streams.back()->Read(&response);
    };
    for (std::size_t number = 0; number < ApplicationService::mostStreams; ++number)
    {
        ASSERT_TRUE(attach()) << number;
    }
    EXPECT_FALSE(attach());
    const grpc::Status status = streams.back()->Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_THAT(status.error_message(), HasSubstr("256 streams of this application are attached"));
    contexts.front()->TryCancel();
    EXPECT_TRUE(Eventually(attach));
    for (const auto& context : contexts)
    {
        context->TryCancel();
    }
}

struct AskCase
{
    PublishResult result;
    grpc::StatusCode code;
    const char* text;
};

class AskTest : public GatewayTest, public testing::WithParamInterface<AskCase>
{
};

TEST_P(AskTest, TheOutcomeBecomesAStatus)
{
    m_asking = {GetParam().result, "because"};
    m_subscriptions.BeginConfiguration("first");
    m_subscriptions.AddTopic("first", "a.b", "client");
    m_subscriptions.Commit("first");
    TestClient client(PathOf("first"));
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    proto::RequestConfigurationResponse response;
    const grpc::Status status = client.GetStub().RequestConfiguration(&context, {}, &response);
    EXPECT_EQ(status.error_code(), GetParam().code);
    EXPECT_THAT(status.error_message(), HasSubstr(GetParam().text));
    EXPECT_THAT(m_asked, ElementsAre("first"));
    if (status.ok())
    {
        EXPECT_EQ(response.configuration().state(), proto::Configuration::APPLIED);
        EXPECT_THAT(response.configuration().topics(), ElementsAre("a.b"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, AskTest,
    testing::Values(
        AskCase{PublishResult::confirmed, grpc::StatusCode::OK, ""},
        AskCase{PublishResult::noRoute, grpc::StatusCode::NOT_FOUND, "the management plane is not there"},
        AskCase{PublishResult::refused, grpc::StatusCode::FAILED_PRECONDITION, "because: the operator has to mend"},
        AskCase{PublishResult::timedOut, grpc::StatusCode::DEADLINE_EXCEEDED, "because: the management plane may have"},
        AskCase{PublishResult::notSent, grpc::StatusCode::UNAVAILABLE, "because: not sent"},
        AskCase{PublishResult::overloaded, grpc::StatusCode::UNAVAILABLE, "because: not sent"}));

TEST_F(GatewayTest, AskingAgainAtOnceIsRefused)
{
    EXPECT_TRUE(CallRaw(PathOf("first"), "RequestConfiguration", "").first.ok());
    const grpc::Status status = CallRaw(PathOf("first"), "RequestConfiguration", "").first;
    EXPECT_EQ(status.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_THAT(status.error_message(), HasSubstr("wait for the Configuration"));
    EXPECT_TRUE(CallRaw(PathOf("second"), "RequestConfiguration", "").first.ok());
    m_timers.Step(std::chrono::seconds(1));
    EXPECT_TRUE(CallRaw(PathOf("first"), "RequestConfiguration", "").first.ok());
    EXPECT_THAT(m_asked, ElementsAre("first", "second", "first"));
}

TEST_F(GatewayTest, DeliversAndTakesVerdicts)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    FakeMessage message{.body = "hello", .queue = "urgent", .routingKey = "a.b", .tries = 1, .redelivered = true};
    message.properties.type = "T";
    message.properties.headers = {{"h", RmqValue::Integer(-5)}};
    DispatchOne("first", message);
    const auto deliveries = client.ReadDeliveries(1);
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].delivery_id(), 1U);
    EXPECT_EQ(deliveries[0].body(), "hello");
    EXPECT_EQ(deliveries[0].exchange(), "exchange");
    EXPECT_EQ(deliveries[0].routing_key(), "a.b");
    EXPECT_EQ(deliveries[0].queue(), "urgent");
    EXPECT_TRUE(deliveries[0].priority());
    EXPECT_TRUE(deliveries[0].redelivered());
    EXPECT_EQ(deliveries[0].tries(), 1U);
    EXPECT_EQ(deliveries[0].properties().type(), "T");
    ASSERT_EQ(deliveries[0].properties().headers_size(), 1);
    EXPECT_EQ(deliveries[0].properties().headers(0).value().integer(), -5);
    client.SendVerdict(1);
    EXPECT_TRUE(Eventually([this] { return !m_log.All().empty(); }));
    EXPECT_THAT(m_log.Take(), ElementsAre("hello done"));
}

TEST_F(GatewayTest, ManyDeliveriesComeInOrderAndInBatches)
{
    WidenWindow();
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    std::vector<std::string> bodies;
    bodies.reserve(400);
    for (int number = 0; number < 400; ++number)
    {
        bodies.push_back(std::to_string(number));
    }
    Dispatch("first", bodies);
    EXPECT_EQ(BodiesOf(client.ReadDeliveries(bodies.size())), bodies);
    EXPECT_THAT(client.Batches(), testing::Each(testing::Le(64)));
    EXPECT_LT(client.Batches().size(), bodies.size());
}

TEST_F(GatewayTest, BodiesOfAnySizeComeInOrder)
{
    WidenWindow();
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    std::vector<std::string> bodies;
    for (std::size_t number = 0; number < 60; ++number)
    {
        const std::size_t size = (number % 5) * 32768;
        bodies.emplace_back(size, static_cast<char>('a' + number % 26));
    }
    Dispatch("first", bodies);
    EXPECT_EQ(BodiesOf(client.ReadDeliveries(bodies.size())), bodies);
}

TEST_F(GatewayTest, ALargeBodyIsSentAlone)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", std::vector<std::string>(6, std::string(700000, 'x')));
    EXPECT_EQ(client.ReadDeliveries(6).size(), 6U);
    EXPECT_THAT(client.Batches(), testing::Each(1));
}

TEST_F(GatewayTest, ABatchOfLargeHeadersStaysSmall)
{
    WidenWindow();
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    FakeMessage message{.body = "small"};
    message.properties.headers = {{"large", RmqValue::String(std::string(100000, 'x'))}};
    for (int number = 0; number < 64; ++number)
    {
        DispatchOne("first", message);
    }
    EXPECT_EQ(client.ReadDeliveries(64).size(), 64U);
    EXPECT_THAT(client.Batches(), testing::Each(testing::Le(11)));
}

TEST_F(GatewayTest, ASecondVerdictEndsTheStreamAndRedeliversTheRest)
{
    TestClient bystander(PathOf("second"));
    AttachLive(bystander, "second");
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", {"a", "b"});
    client.ReadDeliveries(2);
    client.SendVerdict(1);
    client.SendVerdict(1);
    const grpc::Status status = client.Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_THAT(status.error_message(), HasSubstr("delivery 1 has had its verdict or was never sent on this stream"));
    EXPECT_THAT(m_log.Take(), ElementsAre("a done", "b park"));
    Dispatch("second", {"c"});
    EXPECT_THAT(BodiesOf(bystander.ReadDeliveries(1)), ElementsAre("c"));
}

TEST_F(GatewayTest, AnotherInstanceGetsWhatACancelledOneLeaves)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", {"a"});
    client.ReadDeliveries(1);
    TestClient other(PathOf("first"));
    other.Attach();
    client.Cancel();
    const auto deliveries = other.ReadDeliveries(1);
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].body(), "a");
    EXPECT_TRUE(deliveries[0].redelivered());
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(GatewayTest, AnInstanceThatEndsItsSideIsDetachedWithStatusOk)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    client.WritesDone();
    EXPECT_TRUE(client.Finish().ok());
    EXPECT_EQ(m_applications.Find("first")->Snapshot().sessions, 0U);
}

struct WrongRequest
{
    const char* name;
    bool hello;
    std::function<void(proto::AttachRequest&)> fill;
    const char* text;
};

class WrongRequestTest : public GatewayTest, public testing::WithParamInterface<WrongRequest>
{
};

TEST_P(WrongRequestTest, EndsTheStreamWithWhatToDo)
{
    TestClient client(PathOf("first"));
    if (GetParam().hello)
    {
        AttachLive(client, "first");
        Dispatch("first", {"a"});
        client.ReadDeliveries(1);
    }
    else
    {
        client.Open();
    }
    proto::AttachRequest request;
    GetParam().fill(request);
    client.Send(request);
    const grpc::Status status = client.Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_THAT(status.error_message(), HasSubstr(GetParam().text));
    EXPECT_EQ(m_applications.Find("first")->Snapshot().sessions, 0U);
}

proto::Verdict& VerdictIn(proto::AttachRequest& request)
{
    proto::Verdict& verdict = *request.mutable_verdicts()->add_verdicts();
    verdict.set_delivery_id(1);
    verdict.set_kind(proto::Verdict::DEAD);
    return verdict;
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongRequestTest,
    testing::Values(
        WrongRequest{
            "VerdictFirst", false, [](proto::AttachRequest& request) { VerdictIn(request); },
            "the first message of the stream must be AttachRequest.hello"},
        WrongRequest{
            "LongInstance", false,
            [](proto::AttachRequest& request) { request.mutable_hello()->set_instance(std::string(65, 'x')); },
            "Hello.instance has 65 bytes: shorten it to 64"},
        WrongRequest{
            "HelloWindow", false, [](proto::AttachRequest& request) { request.mutable_hello()->set_window(65536); },
            "the window is 65536: ask for 1 to 65535"},
        WrongRequest{
            "SecondHello", true, [](proto::AttachRequest& request) { request.mutable_hello(); },
            "a second Hello came on the stream"},
        WrongRequest{
            "WindowZero", true, [](proto::AttachRequest& request) { request.mutable_window(); }, "the window is 0"},
        WrongRequest{
            "KindUnspecified", true,
            [](proto::AttachRequest& request) { VerdictIn(request).set_kind(proto::Verdict::KIND_UNSPECIFIED); },
            "the verdict for delivery 1 has the kind 0: use DONE, RETRY or DEAD"},
        WrongRequest{
            "UnknownDelivery", true, [](proto::AttachRequest& request) { VerdictIn(request).set_delivery_id(17); },
            "delivery 17 has had its verdict or was never sent on this stream"},
        WrongRequest{
            "LongReason", true,
            [](proto::AttachRequest& request) { VerdictIn(request).set_reason(std::string(1025, 'x')); },
            "the reason for delivery 1 has 1025 bytes: shorten it to 1024"},
        WrongRequest{
            "LongDelay", true, [](proto::AttachRequest& request) { VerdictIn(request).set_retry_delay_ms(900001); },
            "retry_delay_ms for delivery 1 is 900001"}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(GatewayTest, AMissingHelloEndsTheStream)
{
    TestClient client(PathOf("first"));
    client.Open();
    // The server counts the ten seconds from the moment that it sees the stream.
    EXPECT_TRUE(Eventually(
        [this]
        {
            m_timers.Step(std::chrono::seconds(10));
            return m_timers.HasRun();
        }));
    const grpc::Status status = client.Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_THAT(status.error_message(), HasSubstr("no Hello came within 10 seconds"));
}

TEST_F(GatewayTest, AnOverdueInstanceHearsWhy)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", {"a"});
    client.ReadDeliveries(1);
    m_timers.Step(std::chrono::seconds(60));
    const grpc::Status status = client.Finish();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
    EXPECT_THAT(status.error_message(), HasSubstr("delivery 1 had no verdict for 60 seconds"));
    EXPECT_THAT(m_log.Take(), ElementsAre("a park"));
}

TEST_F(GatewayTest, ConfigurationChangesArePushed)
{
    TestClient client(PathOf("first"));
    EXPECT_EQ(client.Attach().configuration().state(), proto::Configuration::MISSING);
    m_subscriptions.BeginConfiguration("first");
    EXPECT_EQ(client.Read()->configuration().state(), proto::Configuration::APPLYING);
    m_subscriptions.Abort("first", "no such exchange");
    const auto failed = client.Read();
    EXPECT_EQ(failed->configuration().state(), proto::Configuration::FAILED);
    EXPECT_EQ(failed->configuration().error(), "no such exchange");
}

TEST_F(GatewayTest, AVeryLongConfigurationIsCutAndSaysSo)
{
    m_subscriptions.BeginConfiguration("first");
    for (int number = 0; number < 20000; ++number)
    {
        m_subscriptions.AddTopic("first", std::string(200, 'x') + std::to_string(number), "client");
    }
    m_subscriptions.Commit("first");
    TestClient client(PathOf("first"));
    const proto::Welcome welcome = client.Attach();
    EXPECT_TRUE(welcome.configuration().incomplete());
    EXPECT_GT(welcome.configuration().topics_size(), 5000);
    EXPECT_LT(welcome.ByteSizeLong(), 2200000U);
}

struct PublishCase
{
    PublishResult result;
    grpc::StatusCode code;
    const char* text;
};

class PublishTest : public GatewayTest, public testing::WithParamInterface<PublishCase>
{
};

TEST_P(PublishTest, TheOutcomeBecomesAStatus)
{
    m_publisher.AnswerWith(GetParam().result, "because");
    TestClient client(PathOf("first"));
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    proto::PublishRequest request;
    request.set_exchange("e");
    request.set_routing_key("k");
    request.set_body("b");
    request.set_no_route_is_error(true);
    request.mutable_properties()->set_type("T");
    proto::PublishResponse response;
    const grpc::Status status = client.GetStub().Publish(&context, request, &response);
    EXPECT_EQ(status.error_code(), GetParam().code);
    EXPECT_EQ(status.error_message(), GetParam().text);
    const auto messages = m_publisher.Messages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].exchange, "e");
    EXPECT_EQ(messages[0].routingKey, "k");
    EXPECT_EQ(messages[0].body, "b");
    EXPECT_TRUE(messages[0].mandatory);
    EXPECT_EQ(messages[0].properties.type, "T");
    EXPECT_EQ(messages[0].deadline, std::chrono::seconds(30));
}

INSTANTIATE_TEST_SUITE_P(
    All, PublishTest,
    testing::Values(
        PublishCase{PublishResult::confirmed, grpc::StatusCode::OK, ""},
        PublishCase{
            PublishResult::noRoute, grpc::StatusCode::NOT_FOUND,
            "because: is its receiver configured? Without no_route_is_error the broker drops such messages"},
        PublishCase{
            PublishResult::refused, grpc::StatusCode::INVALID_ARGUMENT,
            "because: not sent, mend the message or the broker's configuration"},
        PublishCase{
            PublishResult::timedOut, grpc::StatusCode::DEADLINE_EXCEEDED,
            "because: the broker may have the message, repeat it with the same message_id"},
        PublishCase{PublishResult::overloaded, grpc::StatusCode::UNAVAILABLE, "because: not sent, try again later"}));

TEST_F(GatewayTest, AMessageThatCouldNotBeSentIsSaidToBeUnsent)
{
    m_publisher.AnswerWith(PublishResult::notSent, "the broker takes no messages");
    const grpc::Status status = CallRaw(PathOf("first"), "Publish", "").first;
    EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(status.error_message(), "the broker takes no messages: not sent, try again later");
}

TEST_F(GatewayTest, APublishWithWrongPropertiesIsRefusedWithoutThePublisher)
{
    TestClient client(PathOf("first"));
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    proto::PublishRequest request;
    request.mutable_properties()->set_priority(256);
    proto::PublishResponse response;
    const grpc::Status status = client.GetStub().Publish(&context, request, &response);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT);
    EXPECT_EQ(status.error_message(), "priority is 256, AMQP allows 0 to 255");
    EXPECT_THAT(m_publisher.Messages(), IsEmpty());
}

TEST_F(GatewayTest, ATooLargePublishIsRefusedAndTheConnectionGoesOn)
{
    TestClient client(PathOf("first"));
    proto::PublishRequest request;
    request.set_body(std::string(ApplicationServer::mostRequestBytes + 1, 'x'));
    proto::PublishResponse response;
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    EXPECT_EQ(
        client.GetStub().Publish(&context, request, &response).error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    request.set_body("small");
    grpc::ClientContext another;
    EXPECT_TRUE(client.GetStub().Publish(&another, request, &response).ok());
}

TEST_F(GatewayTest, TheCallersDeadlineIsThePublishers)
{
    m_publisher.KeepCompletions();
    TestClient client(PathOf("first"));
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(2));
    proto::PublishResponse response;
    const grpc::Status status = client.GetStub().Publish(&context, {}, &response);
    EXPECT_EQ(status.error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
    const auto messages = m_publisher.Messages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_LE(messages[0].deadline, std::chrono::seconds(2));
    for (const PublishCompletion& completion : m_publisher.TakeKept())
    {
        completion(PublishResult::confirmed, "");
    }
}

TEST_F(GatewayTest, StopEndsAPublishThatThePublisherKeeps)
{
    m_publisher.KeepCompletions();
    TestClient client(PathOf("first"));
    grpc::Status status;
    std::thread caller(
        [&client, &status]
        {
            grpc::ClientContext context;
            context.set_wait_for_ready(true);
            context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
            proto::PublishResponse response;
            status = client.GetStub().Publish(&context, {}, &response);
        });
    EXPECT_TRUE(Eventually([this] { return !m_publisher.Messages().empty(); }));
    m_gateway.Stop(std::chrono::milliseconds(0));
    caller.join();
    EXPECT_FALSE(status.ok());
    for (const PublishCompletion& completion : m_publisher.TakeKept())
    {
        completion(PublishResult::timedOut, "");
    }
}

TEST_F(GatewayTest, GarbageIsCutOffAndOthersGoOn)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    const int socket = ConnectRaw(PathOf("first"));
    ASSERT_GE(socket, 0);
    const std::string garbage(4096, '\xA5');
    EXPECT_EQ(::send(socket, garbage.data(), garbage.size(), MSG_NOSIGNAL), 4096);
    EXPECT_TRUE(IsClosedByPeer(socket));
    ::close(socket);
    Dispatch("first", {"a"});
    EXPECT_THAT(BodiesOf(client.ReadDeliveries(1)), ElementsAre("a"));
}

TEST_F(GatewayTest, ASilentConnectionDisturbsNobody)
{
    const int silent = ConnectRaw(PathOf("first"));
    ASSERT_GE(silent, 0);
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", {"a"});
    EXPECT_THAT(BodiesOf(client.ReadDeliveries(1)), ElementsAre("a"));
    ::close(silent);
}

TEST_F(GatewayTest, ConnectionsOverTheLimitAreClosedAndPlacesBecomeFreeAgain)
{
    std::vector<int> sockets;
    for (std::size_t number = 0; number < ApplicationServer::mostConnections; ++number)
    {
        sockets.push_back(ConnectRaw(PathOf("first")));
        ASSERT_GE(sockets.back(), 0);
    }
    const int tooMany = ConnectRaw(PathOf("first"));
    EXPECT_TRUE(IsClosedByPeer(tooMany));
    ::close(tooMany);
    for (const int socket : sockets)
    {
        ::close(socket);
    }
    EXPECT_TRUE(Eventually(
        [this]
        {
            TestClient client(PathOf("first"));
            return client.Attach().application() == "first";
        }));
}

TEST_F(GatewayTest, AnotherUserIsRefused)
{
    if (::geteuid() != 0)
    {
        // Only root can become somebody else; whoever runs this is allowed.
        EXPECT_TRUE(MayConnect({0, ::geteuid(), ::getegid()}, OwnerOf(m_settings[0])));
        return;
    }
    ASSERT_EQ(::chmod(PathOf("first").c_str(), 0666), 0) << "so that only the kernel's word about the peer counts";
    const pid_t child = ::fork();
    if (child == 0)
    {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
        {
            ::_exit(3);
        }
        const int socket = ConnectRaw(PathOf("first"));
        ::_exit(socket >= 0 && IsClosedByPeer(socket) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    TestClient client(PathOf("first"));
    EXPECT_EQ(client.Attach().application(), "first") << "root is allowed";
}

TEST_F(GatewayTest, TheOwnerAndAGroupMemberAreAllowed)
{
    const SocketOwner owner{1234567, 7654321};
    EXPECT_TRUE(MayConnect({1, 1234567, 1}, owner));
    EXPECT_TRUE(MayConnect({1, 1111111, 7654321}, owner));
    EXPECT_TRUE(MayConnect({1, 0, 0}, owner));
    EXPECT_TRUE(MayConnect({1, ::geteuid(), 1}, owner));
    EXPECT_FALSE(MayConnect({1, 1111111, 1111111}, owner));
}

TEST_F(GatewayTest, AnUnknownUserIsAnErrorThatNamesIt)
{
    m_settings[0].user = "no-such-user-here";
    const auto errors = Reload();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0], "application first: this host has no user \"no-such-user-here\"");
    TestClient client(PathOf("second"));
    EXPECT_EQ(client.Attach().application(), "second");
}

TEST_F(GatewayTest, TheSocketBelongsToUserAndGroupWhenRootMakesIt)
{
    m_settings[0].user = ::geteuid() == 0 ? "65534" : "";
    m_settings[0].group = ::geteuid() == 0 ? "65533" : "";
    EXPECT_THAT(Reload(), IsEmpty());
    struct stat info = {};
    ASSERT_EQ(::stat(PathOf("first").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, ::geteuid() == 0 ? 65534U : ::geteuid());
    EXPECT_EQ(info.st_gid, ::geteuid() == 0 ? 65533U : ::getegid());
    EXPECT_EQ(info.st_mode & 0777U, 0660U);
}

TEST_F(GatewayTest, ReloadAddsAndRemovesApplications)
{
    TestClient kept(PathOf("second"));
    AttachLive(kept, "second");
    TestClient gone(PathOf("first"));
    gone.Attach();
    m_settings = {SettingsOf("second"), SettingsOf("third")};
    EXPECT_THAT(Reload(), IsEmpty());
    EXPECT_EQ(gone.Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_FALSE(std::filesystem::exists(PathOf("first")));
    TestClient added(PathOf("third"));
    EXPECT_EQ(added.Attach().application(), "third");
    Dispatch("second", {"a"});
    EXPECT_THAT(BodiesOf(kept.ReadDeliveries(1)), ElementsAre("a"));
}

TEST_F(GatewayTest, StopWaitsForVerdictsAndThenEndsTheStreams)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", {"a", "b"});
    client.ReadDeliveries(2);
    std::thread stopping([this] { m_gateway.Stop(std::chrono::seconds(30)); });
    EXPECT_TRUE(Eventually([this] { return !std::filesystem::exists(PathOf("first")); }));
    client.SendVerdict(1);
    client.SendVerdict(2);
    const grpc::Status status = client.Finish();
    stopping.join();
    EXPECT_EQ(status.error_code(), grpc::StatusCode::UNAVAILABLE);
    EXPECT_EQ(status.error_message(), "the agent is stopping");
    EXPECT_THAT(m_log.Take(), ElementsAre("a done", "b done"));
}

TEST_F(GatewayTest, StopDoesNotWaitBeyondItsBudget)
{
    TestClient client(PathOf("first"));
    AttachLive(client, "first");
    Dispatch("first", {"a"});
    client.ReadDeliveries(1);
    m_gateway.Stop(std::chrono::milliseconds(20));
    EXPECT_EQ(client.Finish().error_message(), "the agent is stopping");
    EXPECT_THAT(m_log.Take(), IsEmpty());
}

TEST_F(GatewayTest, AStaleSocketIsReplacedAndALiveOneIsNot)
{
    TemporaryFolder folder;
    const std::string path = folder.Path() + "/x.sock";
    const SocketOwner owner{::geteuid(), ::getegid()};
    const int stale = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ::close(stale);
    const ListeningSocket live(path, owner);
    try
    {
        const ListeningSocket second(path, owner);
        ADD_FAILURE() << "a live socket was replaced";
    }
    catch (const QelException& error)
    {
        EXPECT_EQ(std::string(error.what()), "socket " + path + ": another process serves it");
    }
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(GatewayTest, AFileThatIsNoSocketIsLeftAlone)
{
    TemporaryFolder folder;
    const std::string path = folder.Path() + "/x.sock";
    std::ofstream(path) << "precious";
    EXPECT_THROW(ListeningSocket(path, {::geteuid(), ::getegid()}), QelException);
    EXPECT_EQ(std::filesystem::file_size(path), 8U);
}

TEST_F(GatewayTest, ATooLongPathIsAClearError)
{
    const std::string path = m_folder.Path() + "/" + std::string(120, 'x');
    try
    {
        const ListeningSocket socket(path, {::geteuid(), ::getegid()});
        ADD_FAILURE() << "the path was taken";
    }
    catch (const QelException& error)
    {
        EXPECT_THAT(error.what(), HasSubstr("the system allows 107: use a shorter runtime directory or name"));
    }
}

/** Takes every descriptor that the process has left. */
class DescriptorsUsedUp
{
  public:
    DescriptorsUsedUp()
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit small = m_before;
        small.rlim_cur = 256;
        ::setrlimit(RLIMIT_NOFILE, &small);
        for (int descriptor = 0; descriptor >= 0;)
        {
            descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (descriptor >= 0)
            {
                m_taken.push_back(descriptor);
            }
        }
    }
    ~DescriptorsUsedUp()
    {
        for (const int descriptor : m_taken)
        {
            ::close(descriptor);
        }
        ::setrlimit(RLIMIT_NOFILE, &m_before);
    }
    DescriptorsUsedUp(const DescriptorsUsedUp&) = delete;
    DescriptorsUsedUp& operator=(const DescriptorsUsedUp&) = delete;
    /** Leaves room for one. */
    void FreeOne()
    {
        ::close(m_taken.back());
        m_taken.pop_back();
    }

  private:
    rlimit m_before = {};
    std::vector<int> m_taken;
};

// The sanitizers look at memory through a pipe, and without a descriptor for it they take sound objects for broken
// ones.
#ifndef __SANITIZE_ADDRESS__
TEST_F(GatewayTest, WithoutDescriptorsConnectionsAreRefusedAndLaterOnesServed)
{
    {
        DescriptorsUsedUp usedUp;
        usedUp.FreeOne();
        const int socket = ConnectRaw(PathOf("first"));
        ASSERT_GE(socket, 0);
        EXPECT_TRUE(IsClosedByPeer(socket));
        ::close(socket);
    }
    TestClient client(PathOf("first"));
    EXPECT_EQ(client.Attach().application(), "first");
}
#endif

} // namespace
} // namespace VtxQel

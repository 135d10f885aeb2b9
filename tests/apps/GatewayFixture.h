#pragma once

#include "apps/ApplicationGateway.h"
#include "apps/ApplicationSet.h"
#include "apps/AppsFakes.h"
#include "apps/LocalAppDispatcher.h"
#include "apps/Subscriptions.h"
#include "apps/TemporaryFolder.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace VtxQel
{

/** Answers as told, or keeps the completions for later. */
class FakePublisher : public Publisher
{
  public:
    void Publish(OutgoingMessage message, PublishCompletion completion) override
    {
        std::unique_lock lock(m_mutex);
        m_messages.push_back(std::move(message));
        if (m_keeping)
        {
            m_kept.push_back(std::move(completion));
            return;
        }
        const auto answer = m_answer;
        lock.unlock();
        completion(answer.first, answer.second);
    }
    void AnswerWith(PublishResult result, const std::string& why)
    {
        const std::lock_guard lock(m_mutex);
        m_answer = {result, why};
    }
    void KeepCompletions()
    {
        const std::lock_guard lock(m_mutex);
        m_keeping = true;
    }
    std::vector<PublishCompletion> TakeKept()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_kept, {});
    }
    std::vector<OutgoingMessage> Messages() const
    {
        const std::lock_guard lock(m_mutex);
        return m_messages;
    }

  private:
    mutable std::mutex m_mutex;
    bool m_keeping = false;
    std::pair<PublishResult, std::string> m_answer{PublishResult::confirmed, ""};
    std::vector<PublishCompletion> m_kept;
    std::vector<OutgoingMessage> m_messages;
};

/** An instance of an application over a real socket, one step at a time. */
class TestClient
{
  public:
    using Stub = qel::apps::v1::Applications::Stub;

    explicit TestClient(const std::string& path)
    {
        grpc::ChannelArguments arguments;
        // Otherwise clients of the same address in one process share a connection.
        arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        arguments.SetMaxReceiveMessageSize(-1);
        m_stub = qel::apps::v1::Applications::NewStub(
            grpc::CreateCustomChannel("unix:" + path, grpc::InsecureChannelCredentials(), arguments));
    }
    ~TestClient()
    {
        if (m_stream)
        {
            m_context.TryCancel();
            m_stream->Finish();
        }
    }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    Stub& GetStub() { return *m_stub; }

    void Open()
    {
        m_context.set_wait_for_ready(true);
        m_context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
        m_stream = m_stub->Attach(&m_context);
    }
    void Send(const qel::apps::v1::AttachRequest& request) { m_stream->Write(request); }
    void SendHello(std::uint32_t window = 0, const std::string& instance = "test")
    {
        qel::apps::v1::AttachRequest request;
        request.mutable_hello()->set_window(window);
        request.mutable_hello()->set_instance(instance);
        Send(request);
    }
    void SendDetach()
    {
        qel::apps::v1::AttachRequest request;
        request.mutable_detach();
        Send(request);
    }
    void SendVerdict(std::uint64_t delivery, qel::apps::v1::Verdict::Kind kind = qel::apps::v1::Verdict::DONE)
    {
        qel::apps::v1::AttachRequest request;
        auto& verdict = *request.mutable_verdicts()->add_verdicts();
        verdict.set_delivery_id(delivery);
        verdict.set_kind(kind);
        verdict.set_reason("why");
        Send(request);
    }
    /** The next message; empty when the stream has ended. */
    std::optional<qel::apps::v1::AttachResponse> Read()
    {
        qel::apps::v1::AttachResponse response;
        if (!m_stream->Read(&response))
        {
            return std::nullopt;
        }
        return response;
    }
    /** Opens and says hello; the welcome. */
    qel::apps::v1::Welcome Attach(std::uint32_t window = 0)
    {
        Open();
        SendHello(window);
        const auto response = Read();
        return response ? response->welcome() : qel::apps::v1::Welcome();
    }
    /** The next so many deliveries, whatever batches they come in; states in between are skipped. */
    std::vector<qel::apps::v1::Delivery> ReadDeliveries(std::size_t count)
    {
        std::vector<qel::apps::v1::Delivery> deliveries;
        while (deliveries.size() < count)
        {
            const auto response = Read();
            if (!response)
            {
                break;
            }
            m_batches.push_back(response->deliveries().deliveries_size());
            for (const auto& delivery : response->deliveries().deliveries())
            {
                deliveries.push_back(delivery);
            }
        }
        return deliveries;
    }
    const std::vector<int>& Batches() const { return m_batches; }
    /** Reads to the end of the stream; its status. */
    grpc::Status Finish()
    {
        while (Read())
        {
        }
        grpc::Status status = m_stream->Finish();
        m_stream.reset();
        return status;
    }
    void Cancel() { m_context.TryCancel(); }
    void WritesDone() { m_stream->WritesDone(); }

  private:
    std::unique_ptr<Stub> m_stub;
    grpc::ClientContext m_context;
    std::unique_ptr<grpc::ClientReaderWriter<qel::apps::v1::AttachRequest, qel::apps::v1::AttachResponse>> m_stream;
    std::vector<int> m_batches;
};

/** Calls a method of the interface with these bytes as its one request; the status, and the answer's bytes. */
inline std::pair<grpc::Status, std::string> CallRaw(
    const std::string& path, const std::string& method, const std::string& bytes)
{
    grpc::GenericStub stub(grpc::CreateChannel("unix:" + path, grpc::InsecureChannelCredentials()));
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
    const grpc::Slice slice(bytes);
    grpc::CompletionQueue queue;
    const auto call =
        stub.PrepareUnaryCall(&context, "/qel.apps.v1.Applications/" + method, grpc::ByteBuffer(&slice, 1), &queue);
    call->StartCall();
    grpc::ByteBuffer response;
    grpc::Status status;
    call->Finish(&response, &status, nullptr);
    void* tag = nullptr;
    bool ok = false;
    queue.Next(&tag, &ok);
    grpc::Slice answer;
    return {
        status, status.ok() && response.DumpToSingleSlice(&answer).ok()
                    ? std::string(reinterpret_cast<const char*>(answer.begin()), answer.size())
                    : ""};
}

/** A raw connection to a socket; negative when it fails. */
inline int ConnectRaw(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    {
        ::close(socket);
        return -1;
    }
    timeval patience = {30, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    return socket;
}

/** Waits, with a generous limit, until the condition holds. */
template <typename Condition>
bool Eventually(const Condition& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

/** The whole module with real sockets; broker, publisher and time are fakes. */
class GatewayTest : public testing::Test
{
  protected:
    GatewayTest()
    {
        m_settings = {SettingsOf("first"), SettingsOf("second")};
        Reload();
    }

    std::vector<std::string> Reload()
    {
        m_applications.Reload(m_settings);
        return m_gateway.Reload(m_settings);
    }
    /** Lets the first application have all that a test sends at once. */
    void WidenWindow()
    {
        m_settings[0].window = 1000;
        Reload();
    }
    std::string PathOf(const std::string& application) const { return m_gateway.SocketPath(application); }
    /** Makes an attached application live: its parking queue is empty. */
    void MakeLive(const std::string& application)
    {
        m_applications.Find(application)->MarkerReturned(m_parking.LastMarker());
    }
    qel::apps::v1::Welcome AttachLive(TestClient& client, const std::string& application, std::uint32_t window = 0)
    {
        auto welcome = client.Attach(window);
        MakeLive(application);
        return welcome;
    }
    void DispatchOne(const std::string& application, FakeMessage message)
    {
        message.properties.appId = application;
        EXPECT_TRUE(m_dispatcher.Dispatch(boost::make_shared<FakeDelivery>(m_log, std::move(message))));
    }
    void Dispatch(const std::string& application, const std::vector<std::string>& bodies)
    {
        for (const std::string& body : bodies)
        {
            DispatchOne(application, FakeMessage{.body = body});
        }
    }

    TemporaryFolder m_folder;
    AnswerLog m_log;
    HoldBudget m_budget{1000, 100000000};
    FakeParkingQueues m_parking;
    FakeTimers m_timers;
    FakePublisher m_publisher;
    ApplicationSet m_applications{
        ApplicationContext{m_budget, m_parking, m_timers, std::chrono::milliseconds(250), {}}};
    Subscriptions m_subscriptions{"client", "urgent", true};
    LocalAppDispatcher m_dispatcher{m_applications, m_subscriptions};
    /** What the management plane was asked for, and how that went. */
    std::vector<std::string> m_asked;
    std::pair<PublishResult, std::string> m_asking{PublishResult::confirmed, ""};
    ApplicationGateway m_gateway{GatewayContext{
        m_folder.Path(), "1.2.3", m_applications, m_subscriptions, m_publisher, m_timers,
        [this](const std::string& application, const PublishCompletion& completion)
        {
            m_asked.push_back(application);
            completion(m_asking.first, m_asking.second);
        }}};
    std::vector<ApplicationSettings> m_settings;
};

} // namespace VtxQel

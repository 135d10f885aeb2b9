// How long a message takes from a publisher to a consumer's hands: publishes persistent messages of 256 bytes that
// carry their time of sending, at a rate, and takes them in the same process, so that one clock tells both times.
// Prints the latencies in microseconds as a JSON array.
//
//   qel_latency_probe URL QUEUE MESSAGES RATE [SOCKET]
//
// Without SOCKET it consumes the queue itself; with it, it attaches there as an application of the agent that does. It
// prints "ready" when it does either, and begins when it has read a line.

#include "Blocking.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace
{

namespace v1 = qel::apps::v1;
using blocking::channel;
using blocking::Connect;
using blocking::Require;
using Clock = std::chrono::steady_clock;

constexpr std::size_t bodyBytes = 256;
constexpr std::uint16_t prefetch = 1000;

/** The times from sending to now of what arrives. */
class Latencies
{
  public:
    explicit Latencies(std::size_t messages) : m_messages(messages) { m_microseconds.reserve(messages); }

    void Arrived(std::string_view body)
    {
        std::int64_t sent = 0;
        Require(body.size() == bodyBytes, "a body of ours");
        std::memcpy(&sent, body.data(), sizeof(sent));
        const auto now = Clock::now().time_since_epoch();
        m_microseconds.push_back(
            static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count() - sent) / 1000);
    }

    bool Complete() const { return m_microseconds.size() == m_messages; }

    void Print() const
    {
        const char* separator = "[";
        for (const double one : m_microseconds)
        {
            std::cout << separator << one;
            separator = ",";
        }
        std::cout << "]" << std::endl;
    }

  private:
    const std::size_t m_messages;
    std::vector<double> m_microseconds;
};

void Publish(const std::string& url, const std::string& queue, std::size_t messages, double rate)
{
    amqp_connection_state_t connection = Connect(url);
    amqp_basic_properties_t properties{};
    properties._flags = AMQP_BASIC_DELIVERY_MODE_FLAG | AMQP_BASIC_APP_ID_FLAG;
    properties.delivery_mode = AMQP_DELIVERY_PERSISTENT;
    properties.app_id = amqp_cstring_bytes("bench");
    std::string body(bodyBytes, 'x');
    const auto begin = Clock::now();
    for (std::size_t number = 0; number < messages; ++number)
    {
        const std::chrono::duration<double> due(static_cast<double>(number) / rate);
        std::this_thread::sleep_until(begin + std::chrono::duration_cast<Clock::duration>(due));
        const std::int64_t now =
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
        std::memcpy(body.data(), &now, sizeof(now));
        Require(
            amqp_basic_publish(
                connection, channel, amqp_empty_bytes, amqp_cstring_bytes(queue.c_str()), 0, 0, &properties,
                {body.size(), body.data()}) == 0,
            "publishing");
    }
    // In order, so that nothing is cut off on its way.
    Require(amqp_connection_close(connection, AMQP_REPLY_SUCCESS), "closing");
    amqp_destroy_connection(connection);
}

std::jthread PublishWhenTold(char** argv)
{
    std::cout << "ready" << std::endl;
    std::string line;
    std::getline(std::cin, line);
    return std::jthread(
        [argv] { Publish(argv[1], argv[2], std::strtoull(argv[3], nullptr, 10), std::strtod(argv[4], nullptr)); });
}

void ConsumeBare(Latencies& latencies, char** argv)
{
    amqp_connection_state_t connection = Connect(argv[1]);
    blocking::Consume(connection, argv[2], prefetch);
    const std::jthread publisher = PublishWhenTold(argv);
    while (!latencies.Complete())
    {
        amqp_maybe_release_buffers(connection);
        amqp_envelope_t envelope;
        Require(amqp_consume_message(connection, &envelope, nullptr, 0), "consuming");
        const amqp_bytes_t& body = envelope.message.body;
        latencies.Arrived({static_cast<const char*>(body.bytes), body.len});
        Require(amqp_basic_ack(connection, channel, envelope.delivery_tag, 0) == 0, "acknowledging");
        amqp_destroy_envelope(&envelope);
    }
    Require(amqp_connection_close(connection, AMQP_REPLY_SUCCESS), "closing");
    amqp_destroy_connection(connection);
}

void ConsumeAttached(Latencies& latencies, char** argv)
{
    const auto connection = grpc::CreateChannel(std::string("unix:") + argv[5], grpc::InsecureChannelCredentials());
    const auto stub = v1::Applications::NewStub(connection);
    grpc::ClientContext context;
    const auto stream = stub->Attach(&context);
    v1::AttachRequest request;
    request.mutable_hello()->set_instance("bench");
    v1::AttachResponse response;
    Require(stream->Write(request) && stream->Read(&response) && response.has_welcome(), "attaching");
    const std::jthread publisher = PublishWhenTold(argv);
    while (!latencies.Complete())
    {
        Require(stream->Read(&response), "reading");
        request.mutable_verdicts()->Clear();
        for (const v1::Delivery& delivery : response.deliveries().deliveries())
        {
            latencies.Arrived(delivery.body());
            v1::Verdict& verdict = *request.mutable_verdicts()->add_verdicts();
            verdict.set_delivery_id(delivery.delivery_id());
            verdict.set_kind(v1::Verdict::DONE);
        }
        Require(request.verdicts().verdicts().empty() || stream->Write(request), "answering");
    }
    stream->WritesDone();
    while (stream->Read(&response))
    {
    }
    Require(stream->Finish().ok(), "the stream's end");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 5)
    {
        std::cerr << "usage: qel_latency_probe URL QUEUE MESSAGES RATE [SOCKET]" << std::endl;
        return 2;
    }
    try
    {
        Latencies latencies(std::strtoull(argv[3], nullptr, 10));
        (argc > 5 ? ConsumeAttached : ConsumeBare)(latencies, argv);
        latencies.Print();
        return 0;
    }
    catch (const std::exception& e)
    {
        std::cerr << "qel_latency_probe: " << e.what() << std::endl;
        return 1;
    }
}

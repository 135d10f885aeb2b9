// The agent's side of one Attach stream, as fast as its client takes it: delivers so many messages of 256 bytes, in
// batches of 64 within a window of 1000, or one by one at a rate, and prints as JSON how long it took from the first
// delivery to the last verdict and how long a message waited for its verdict: at a rate, one behind the first 500, in
// which a runtime that compiles while it runs has other work. What it measures is the client.
//
//   qel_delivery_source SOCKET MESSAGES [MESSAGES-A-SECOND]

#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

namespace v1 = qel::apps::v1;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::size_t window = 1000;
constexpr std::size_t mostInBatch = 64;
constexpr std::size_t bodyBytes = 256;
constexpr std::size_t warmUp = 500;

class DeliverySource : public v1::Applications::Service
{
  public:
    DeliverySource(std::size_t messages, double rate) : m_rate(rate), m_sentAt(messages), m_waits(messages) {}

    /** Waits for the last verdict and prints. */
    void Report()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_answered == m_sentAt.size(); });
        const double seconds = std::chrono::duration<double>(m_last - m_sentAt.front()).count();
        if (m_rate > 0 && m_waits.size() > warmUp)
        {
            m_waits.erase(m_waits.begin(), m_waits.begin() + warmUp);
        }
        std::sort(m_waits.begin(), m_waits.end());
        std::cout << R"({"seconds":)" << seconds << R"(,"p50":)" << m_waits[m_waits.size() / 2].count() << R"(,"p99":)"
                  << m_waits[m_waits.size() * 99 / 100].count() << "}" << std::endl;
    }

  private:
    using Stream = grpc::ServerReaderWriter<v1::AttachResponse, v1::AttachRequest>;

    grpc::Status Attach(grpc::ServerContext*, Stream* stream) override
    {
        v1::AttachRequest hello;
        stream->Read(&hello);
        v1::AttachResponse response;
        response.mutable_welcome()->set_window(window);
        stream->Write(response);
        const std::jthread reader([this, stream] { ReadVerdicts(*stream); });
        for (std::size_t sent = 0; sent < m_sentAt.size();)
        {
            const std::size_t count = m_rate > 0 ? 1 : std::min(mostInBatch, m_sentAt.size() - sent);
            WaitForTurn(sent, count);
            Fill(*response.mutable_deliveries(), sent, count);
            stream->Write(response);
            sent += count;
        }
        return grpc::Status::OK;
    }

    void WaitForTurn(std::size_t sent, std::size_t count)
    {
        if (m_rate > 0)
        {
            m_started = sent == 0 ? Clock::now() : m_started;
            std::this_thread::sleep_until(
                m_started + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(static_cast<double>(sent) / m_rate)));
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return sent + count - m_answered <= window; });
        std::fill_n(m_sentAt.begin() + static_cast<std::ptrdiff_t>(sent), count, Clock::now());
    }

    static void Fill(v1::DeliveryBatch& batch, std::size_t first, std::size_t count)
    {
        static const std::string body(bodyBytes, 'x');
        batch.Clear();
        for (std::size_t id = first; id < first + count; ++id)
        {
            v1::Delivery& delivery = *batch.add_deliveries();
            delivery.set_delivery_id(id);
            delivery.set_exchange("qel");
            delivery.set_routing_key("orders.created");
            delivery.set_queue("qel.client.bench");
            delivery.set_body(body);
            delivery.mutable_properties()->set_message_id("65590d950a03a3ffbd076ab00d120793");
            delivery.mutable_properties()->set_delivery_mode(2);
        }
    }

    void ReadVerdicts(Stream& stream)
    {
        v1::AttachRequest request;
        while (stream.Read(&request))
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_last = Clock::now();
            for (const v1::Verdict& verdict : request.verdicts().verdicts())
            {
                m_waits[m_answered++] = m_last - m_sentAt[verdict.delivery_id()];
            }
            m_changed.notify_all();
        }
    }

    const double m_rate;
    Clock::time_point m_started;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    std::vector<Clock::time_point> m_sentAt;
    std::vector<Microseconds> m_waits;
    std::size_t m_answered = 0;
    Clock::time_point m_last;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3 || std::strtoull(argv[2], nullptr, 10) == 0)
    {
        std::cerr << "usage: qel_delivery_source SOCKET MESSAGES [MESSAGES-A-SECOND]" << std::endl;
        return 2;
    }
    DeliverySource source(std::strtoull(argv[2], nullptr, 10), argc > 3 ? std::strtod(argv[3], nullptr) : 0);
    grpc::ServerBuilder builder;
    builder.AddListeningPort(std::string("unix:") + argv[1], grpc::InsecureServerCredentials());
    builder.RegisterService(&source);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    source.Report();
    server->Shutdown(std::chrono::system_clock::now());
    return 0;
}

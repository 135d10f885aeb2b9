// Attaches to the agent as an application, answers every delivery with DONE, batch by batch, and prints as JSON how
// long it took from the first delivery to the last verdict. A consumer as small as can be: what it measures is the
// agent.
//
//   qel_attach_consumer SOCKET MESSAGES

#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <utility>

namespace
{

namespace v1 = qel::apps::v1;
using Clock = std::chrono::steady_clock;

/** One stream; gRPC calls it, main() waits for it. */
class Consumer : public grpc::ClientBidiReactor<v1::AttachRequest, v1::AttachResponse>
{
  public:
    explicit Consumer(std::uint64_t messages) : m_messages(messages) {}

    void Start(v1::Applications::Stub& stub)
    {
        m_outgoing.mutable_hello()->set_instance("bench");
        stub.async()->Attach(&m_context, this);
        StartWrite(&m_outgoing);
        StartRead(&m_incoming);
        StartCall();
    }

    grpc::Status Wait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_done; });
        return m_status;
    }

    std::uint64_t Answered() const { return m_answered; }
    double Seconds() const { return std::chrono::duration<double>(m_last - m_first).count(); }

  private:
    void OnReadDone(bool ok) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!ok)
        {
            m_readEnded = true;
            return;
        }
        if (m_incoming.has_welcome())
        {
            std::cout << R"({"event":"welcome"})" << std::endl;
        }
        for (const v1::Delivery& delivery : m_incoming.deliveries().deliveries())
        {
            m_first = m_received++ == 0 ? Clock::now() : m_first;
            v1::Verdict* verdict = m_waiting.mutable_verdicts()->add_verdicts();
            verdict->set_delivery_id(delivery.delivery_id());
            verdict->set_kind(v1::Verdict::DONE);
        }
        WriteMore();
        StartRead(&m_incoming);
    }

    void OnWriteDone(bool ok) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_writing = !ok;
        if (ok)
        {
            m_answered += static_cast<std::uint64_t>(m_outgoing.verdicts().verdicts_size());
            m_last = Clock::now();
        }
        WriteMore();
    }

    void OnDone(const grpc::Status& status) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_status = status;
        m_done = true;
        m_changed.notify_all();
    }

    void WriteMore()
    {
        if (m_writing || m_readEnded || m_ended)
        {
            return;
        }
        if (m_waiting.verdicts().verdicts_size() > 0)
        {
            m_outgoing.Swap(&m_waiting);
            m_waiting.mutable_verdicts()->clear_verdicts();
            m_writing = true;
            StartWrite(&m_outgoing);
        }
        else if (m_answered >= m_messages)
        {
            m_ended = true;
            StartWritesDone();
        }
    }

    const std::uint64_t m_messages;
    grpc::ClientContext m_context;
    v1::AttachResponse m_incoming;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    v1::AttachRequest m_outgoing;
    v1::AttachRequest m_waiting;
    bool m_writing = true;
    bool m_readEnded = false;
    bool m_ended = false;
    bool m_done = false;
    std::uint64_t m_received = 0;
    std::uint64_t m_answered = 0;
    Clock::time_point m_first;
    Clock::time_point m_last;
    grpc::Status m_status;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        std::cerr << "usage: qel_attach_consumer SOCKET MESSAGES" << std::endl;
        return 2;
    }
    const std::uint64_t messages = std::strtoull(argv[2], nullptr, 10);
    grpc::ChannelArguments arguments;
    // A batch has as many bytes as its messages, which may be of any size.
    arguments.SetMaxReceiveMessageSize(-1);
    const auto channel =
        grpc::CreateCustomChannel(std::string("unix:") + argv[1], grpc::InsecureChannelCredentials(), arguments);
    const auto stub = v1::Applications::NewStub(channel);
    Consumer consumer(messages);
    consumer.Start(*stub);
    const grpc::Status status = consumer.Wait();
    if (consumer.Answered() < messages)
    {
        std::cerr << "qel_attach_consumer: " << consumer.Answered() << " of " << messages
                  << " messages answered: " << status.error_message() << std::endl;
        return 1;
    }
    std::cout << R"({"event":"end","messages":)" << consumer.Answered() << R"(,"seconds":)" << consumer.Seconds() << "}"
              << std::endl;
    return 0;
}

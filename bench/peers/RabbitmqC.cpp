// A consumer on rabbitmq-c: hands every message of the type "job" to the process at SOCKET and acknowledges it when
// that has answered; messages of another type are rejected. Runs until it is ended.
//
//   qel_rabbitmqc_peer URL QUEUE PREFETCH SOCKET

#include "Blocking.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using blocking::channel;
using blocking::Require;

int ConnectWorker(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Require(path.size() < sizeof(address.sun_path), "the socket's path");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int worker = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    Require(connect(worker, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "reaching the worker");
    return worker;
}

class Peer
{
  public:
    Peer(amqp_connection_state_t connection, int worker) : m_connection(connection), m_worker(worker) {}

    void Run()
    {
        std::array<pollfd, 2> sources{{{amqp_get_sockfd(m_connection), POLLIN, 0}, {m_worker, POLLIN, 0}}};
        for (;;)
        {
            while (TakeMessage())
            {
            }
            HandOver();
            Require(poll(sources.data(), sources.size(), -1) > 0, "waiting");
            if (sources[1].revents != 0)
            {
                TakeVerdicts();
            }
        }
    }

  private:
    /** What has arrived is taken without waiting. */
    bool TakeMessage()
    {
        amqp_maybe_release_buffers(m_connection);
        amqp_envelope_t envelope;
        timeval none{};
        const amqp_rpc_reply_t reply = amqp_consume_message(m_connection, &envelope, &none, 0);
        if (reply.reply_type == AMQP_RESPONSE_LIBRARY_EXCEPTION && reply.library_error == AMQP_STATUS_TIMEOUT)
        {
            return false;
        }
        Require(reply, "consuming");
        Sort(envelope);
        amqp_destroy_envelope(&envelope);
        return true;
    }

    void Sort(const amqp_envelope_t& envelope)
    {
        const amqp_bytes_t& type = envelope.message.properties.type;
        if (std::string_view(static_cast<const char*>(type.bytes), type.len) != "job")
        {
            Require(amqp_basic_reject(m_connection, channel, envelope.delivery_tag, 0) == 0, "rejecting");
            return;
        }
        const amqp_bytes_t& body = envelope.message.body;
        const std::uint32_t length = htonl(static_cast<std::uint32_t>(body.len));
        m_outgoing.append(reinterpret_cast<const char*>(&length), sizeof(length));
        m_outgoing.append(static_cast<const char*>(body.bytes), body.len);
        m_tags.push_back(envelope.delivery_tag);
    }

    void HandOver()
    {
        for (std::size_t sent = 0; sent < m_outgoing.size();)
        {
            const ssize_t done = write(m_worker, m_outgoing.data() + sent, m_outgoing.size() - sent);
            Require(done > 0, "handing over");
            sent += static_cast<std::size_t>(done);
        }
        m_outgoing.clear();
    }

    void TakeVerdicts()
    {
        std::array<char, 4096> verdicts{};
        const ssize_t count = read(m_worker, verdicts.data(), verdicts.size());
        Require(count > 0, "the worker");
        for (ssize_t i = 0; i < count; ++i)
        {
            Require(amqp_basic_ack(m_connection, channel, m_tags.front(), 0) == 0, "acknowledging");
            m_tags.pop_front();
        }
    }

    amqp_connection_state_t m_connection;
    int m_worker;
    std::string m_outgoing;
    /** Of what the worker has: it answers in the order of the messages. */
    std::deque<std::uint64_t> m_tags;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
    {
        std::cerr << "usage: qel_rabbitmqc_peer URL QUEUE PREFETCH SOCKET" << std::endl;
        return 2;
    }
    try
    {
        const int worker = ConnectWorker(argv[4]);
        amqp_connection_state_t connection = blocking::Connect(argv[1]);
        blocking::Consume(connection, argv[2], static_cast<std::uint16_t>(std::atoi(argv[3])));
        Peer(connection, worker).Run();
    }
    catch (const std::exception& e)
    {
        std::cerr << "qel_rabbitmqc_peer: " << e.what() << std::endl;
    }
    return 1;
}

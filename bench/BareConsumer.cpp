// The least that any consumer has to do, as a yardstick for the agent: the library's blocking calls, one connection,
// consume and acknowledge, nothing else. The agent is to reach a large part of these messages a second.
//
// usage: qel_bare_consumer URL QUEUE MESSAGES [PREFETCH [BATCH [AUTHORITIES]]]
//   BATCH 1 acknowledges each message on its own; more acknowledge so many at a time.
//   AUTHORITIES is the file of certificates by which the broker of an amqps: URL is known.

#include "Blocking.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <sys/resource.h>

namespace
{

using blocking::channel;
using blocking::Require;

double CpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time)
    { return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/** Consumes and acknowledges so many messages; the seconds from the first to the last. */
double Consume(amqp_connection_state_t connection, std::uint64_t messages, std::uint64_t batch)
{
    std::chrono::steady_clock::time_point start;
    for (std::uint64_t i = 1; i <= messages; ++i)
    {
        amqp_maybe_release_buffers(connection);
        amqp_envelope_t envelope;
        Require(amqp_consume_message(connection, &envelope, nullptr, 0), "consuming");
        start = i == 1 ? std::chrono::steady_clock::now() : start;
        const std::uint64_t tag = envelope.delivery_tag;
        amqp_destroy_envelope(&envelope);
        if (i % batch == 0 || i == messages)
        {
            amqp_basic_ack(connection, channel, tag, batch > 1);
        }
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Run(
    const std::string& url, const std::string& queue, std::uint64_t messages, int prefetch, std::uint64_t batch,
    const std::string& authorities)
{
    amqp_connection_state_t connection = blocking::Connect(url, authorities);
    const double cpu = CpuSeconds();
    blocking::Consume(connection, queue, static_cast<std::uint16_t>(prefetch));
    const double seconds = Consume(connection, messages, batch);
    const auto count = static_cast<double>(messages);
    std::printf(
        "%.0f messages/s, %.2f us CPU per message (%.0f messages, prefetch %d, acknowledged by %.0f)\n",
        count / seconds, (CpuSeconds() - cpu) * 1e6 / count, count, prefetch, static_cast<double>(batch));
    amqp_connection_close(connection, AMQP_REPLY_SUCCESS);
    amqp_destroy_connection(connection);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
    {
        std::fprintf(stderr, "usage: %s URL QUEUE MESSAGES [PREFETCH [BATCH [AUTHORITIES]]]\n", argv[0]);
        return 2;
    }
    try
    {
        const int prefetch = argc > 4 ? std::atoi(argv[4]) : 1000;
        const std::uint64_t batch = argc > 5 ? std::strtoull(argv[5], nullptr, 10) : 1;
        const std::string authorities = argc > 6 ? argv[6] : "";
        Run(argv[1], argv[2], std::strtoull(argv[3], nullptr, 10), prefetch, batch > 0 ? batch : 1, authorities);
        return 0;
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
}

// The least that binding topics can cost, as a yardstick for configurations: the library's blocking calls, one
// connection, bind after bind, nothing else. Prints as JSON the seconds and the processor's seconds of all of them.
//
// usage: qel_bare_binds URL EXCHANGE QUEUE PREFIX TOPICS bind|unbind
//   The topics are PREFIX0, PREFIX1 and so on; exchange and queue are there already.

#include "Blocking.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <stdexcept>
#include <string>

namespace
{

using blocking::channel;
using blocking::Require;

struct Work
{
    std::string exchange;
    std::string queue;
    std::string prefix;
    std::uint64_t topics;
    bool unbind;
};

amqp_bytes_t Bytes(const std::string& text)
{
    return amqp_bytes_t{text.size(), const_cast<char*>(text.data())};
}

void CarryOut(amqp_connection_state_t connection, const Work& work)
{
    for (std::uint64_t number = 0; number < work.topics; ++number)
    {
        const std::string topic = work.prefix + std::to_string(number);
        if (work.unbind)
        {
            amqp_queue_unbind(
                connection, channel, Bytes(work.queue), Bytes(work.exchange), Bytes(topic), amqp_empty_table);
        }
        else
        {
            amqp_queue_bind(
                connection, channel, Bytes(work.queue), Bytes(work.exchange), Bytes(topic), amqp_empty_table);
        }
        Require(amqp_get_rpc_reply(connection), "a bind");
        amqp_maybe_release_buffers(connection);
    }
}

void Run(const std::string& url, const Work& work)
{
    amqp_connection_state_t connection = blocking::Connect(url);
    const auto start = std::chrono::steady_clock::now();
    const std::clock_t cpu = std::clock();
    CarryOut(connection, work);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    const double cpuSeconds = static_cast<double>(std::clock() - cpu) / CLOCKS_PER_SEC;
    std::cout << R"({"seconds":)" << seconds.count() << R"(,"cpu_seconds":)" << cpuSeconds << "}" << std::endl;
    amqp_connection_close(connection, AMQP_REPLY_SUCCESS);
    amqp_destroy_connection(connection);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 7)
    {
        std::cerr << "usage: qel_bare_binds URL EXCHANGE QUEUE PREFIX TOPICS bind|unbind" << std::endl;
        return 2;
    }
    try
    {
        Run(argv[1],
            {argv[2], argv[3], argv[4], std::strtoull(argv[5], nullptr, 10), std::string(argv[6]) == "unbind"});
        return 0;
    }
    catch (const std::exception& error)
    {
        std::cerr << "qel_bare_binds: " << error.what() << std::endl;
        return 1;
    }
}

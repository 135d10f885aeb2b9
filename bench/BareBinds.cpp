// The least that binding topics can cost, as a yardstick for configurations: the library's blocking calls, one
// connection, bind after bind, nothing else. Prints as JSON the seconds and the processor's seconds of all of them.
//
// usage: qel_bare_binds URL EXCHANGE QUEUE PREFIX TOPICS bind|unbind
//   The topics are PREFIX0, PREFIX1 and so on; exchange and queue are there already.

#include <amqp.h>
#include <amqp_tcp_socket.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <stdexcept>
#include <string>

namespace
{

constexpr amqp_channel_t CHANNEL = 1;

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

void Require(const amqp_rpc_reply_t& reply, const char* what)
{
    if (reply.reply_type != AMQP_RESPONSE_NORMAL)
    {
        throw std::runtime_error(std::string(what) + " failed");
    }
}

amqp_connection_state_t Connect(std::string url)
{
    amqp_connection_info info{};
    amqp_default_connection_info(&info);
    amqp_connection_state_t connection = amqp_new_connection();
    if (amqp_parse_url(url.data(), &info) != AMQP_STATUS_OK ||
        amqp_socket_open(amqp_tcp_socket_new(connection), info.host, info.port) != AMQP_STATUS_OK)
    {
        throw std::runtime_error("no connection to the broker");
    }
    const std::string vhost = *info.vhost == '\0' ? "/" : info.vhost;
    Require(
        amqp_login(connection, vhost.c_str(), 0, 131072, 0, AMQP_SASL_METHOD_PLAIN, info.user, info.password), "login");
    amqp_channel_open(connection, CHANNEL);
    Require(amqp_get_rpc_reply(connection), "opening a channel");
    return connection;
}

void CarryOut(amqp_connection_state_t connection, const Work& work)
{
    for (std::uint64_t number = 0; number < work.topics; ++number)
    {
        const std::string topic = work.prefix + std::to_string(number);
        if (work.unbind)
        {
            amqp_queue_unbind(
                connection, CHANNEL, Bytes(work.queue), Bytes(work.exchange), Bytes(topic), amqp_empty_table);
        }
        else
        {
            amqp_queue_bind(
                connection, CHANNEL, Bytes(work.queue), Bytes(work.exchange), Bytes(topic), amqp_empty_table);
        }
        Require(amqp_get_rpc_reply(connection), "a bind");
        amqp_maybe_release_buffers(connection);
    }
}

void Run(const std::string& url, const Work& work)
{
    amqp_connection_state_t connection = Connect(url);
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

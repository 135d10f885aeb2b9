#include "PrivateBroker.h"

#include "Failure.h"
#include "ManagementSession.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

namespace VtxQel
{

namespace
{

namespace fs = std::filesystem;
using boost::asio::ip::tcp;

constexpr const char* packagedVersions = "/usr/lib/rabbitmq/lib";
constexpr const char* cure = ": install it (apt install rabbitmq-server; its service need not run)";

/** The folder of the package's scripts that run as the caller; those in /usr/sbin switch to a user of the system. */
std::string PackagedPrograms()
{
    std::error_code error;
    std::vector<std::string> found;
    for (const fs::directory_entry& version : fs::directory_iterator(packagedVersions, error))
    {
        found.push_back((version.path() / "sbin").string());
    }
    if (found.empty())
    {
        throw Failure(std::string("there is no RabbitMQ below ") + packagedVersions + cure + ", or say --rabbitmq DIR");
    }
    return *std::max_element(found.begin(), found.end());
}

std::string ServerIn(const std::string& programs)
{
    std::string server = programs + "/rabbitmq-server";
    if (!fs::exists(server))
    {
        throw Failure("there is no " + server + cure + ", or say --rabbitmq DIR, the folder of rabbitmq-server");
    }
    return server;
}

/** A port of the loopback interface and what keeps others from it. */
tcp::acceptor Claim(boost::asio::io_context& context, std::uint16_t port)
{
    tcp::acceptor acceptor(context, tcp::v4());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    boost::system::error_code error;
    acceptor.bind({boost::asio::ip::address_v4::loopback(), port}, error);
    if (!error)
    {
        acceptor.listen(1, error);
    }
    if (error)
    {
        throw Failure(
            "port " + std::to_string(port) + " of 127.0.0.1 cannot be had: " + error.message() +
            ": give another with --port, or none, which takes a free one");
    }
    return acceptor;
}

/** Free ports, the first as wished for. */
std::vector<std::uint16_t> FreePorts(std::uint16_t wished)
{
    boost::asio::io_context context;
    std::vector<tcp::acceptor> claims;
    std::vector<std::uint16_t> ports;
    for (const std::uint16_t port : {wished, std::uint16_t{0}, std::uint16_t{0}})
    {
        claims.push_back(Claim(context, port));
        ports.push_back(claims.back().local_endpoint().port());
    }
    return ports;
}

std::string ReadAll(const std::string& name)
{
    std::ifstream file(name);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::map<std::string, std::string> Environment(
    const DevFolder& folder, std::uint16_t nameServerPort, std::uint16_t nodePort)
{
    const char* const path = std::getenv("PATH");
    return {
        {"PATH", path == nullptr ? "/usr/bin:/bin" : path},
        {"LANG", "C.UTF-8"},
        {"HOME", folder.Path("rabbit/home")},
        {"ERL_CRASH_DUMP", folder.Path("rabbit/erl_crash.dump")},
        {"ERL_EPMD_PORT", std::to_string(nameServerPort)},
        {"ERL_EPMD_ADDRESS", "127.0.0.1"},
        {"RABBITMQ_NODENAME", "qel@localhost"},
        {"RABBITMQ_DIST_PORT", std::to_string(nodePort)},
        {"RABBITMQ_MNESIA_BASE", folder.Path("rabbit/mnesia")},
        {"RABBITMQ_LOG_BASE", folder.Path("rabbit/log")},
        // To the standard output, with everything else.
        {"RABBITMQ_LOGS", "-"},
        {"RABBITMQ_PID_FILE", folder.Path("rabbit/pid")},
        {"RABBITMQ_CONFIG_FILE", folder.Path("rabbit/rabbitmq.conf")},
        {"RABBITMQ_ENABLED_PLUGINS_FILE", folder.Path("rabbit/enabled_plugins")},
        {"RABBITMQ_ADVANCED_CONFIG_FILE", folder.Path("rabbit/none")},
        {"RABBITMQ_CONF_ENV_FILE", folder.Path("rabbit/env.conf")},
        // The start script then becomes the Erlang machine instead of watching over it: one process, one number.
        {"RABBITMQ_ALLOW_INPUT", "true"},
        {"RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS", "-noinput -kernel inet_dist_use_interface {127,0,0,1}"}};
}

} // namespace

PrivateBroker::PrivateBroker(
    const DevFolder& folder, const std::string& programs, std::uint16_t port, const std::function<void()>& onEnd)
    : m_output(folder.Path("rabbit/broker.log"))
{
    const std::string server = ServerIn(programs.empty() ? PackagedPrograms() : programs);
    const std::string nameServer = FindProgram("epmd", "/usr/bin");
    if (nameServer.empty())
    {
        throw Failure(std::string("there is no epmd, which comes with RabbitMQ's Erlang") + cure);
    }
    const std::vector<std::uint16_t> ports = FreePorts(port);
    m_port = ports.front();

    folder.Make("rabbit/home");
    // The user is made at the first start of all.
    m_passwordFile = folder.WriteOnce("password", RandomId() + "\n");
    m_password = ReadAll(m_passwordFile).substr(0, RandomId().size());
    folder.WriteOnce("rabbit/home/.erlang.cookie", RandomId());
    folder.Write("rabbit/enabled_plugins", "[].\n");
    folder.Write("rabbit/env.conf", "");
    folder.Write(
        "rabbit/rabbitmq.conf", "listeners.tcp.1 = 127.0.0.1:" + std::to_string(m_port) + "\ndefault_user = " + USER +
                                    "\ndefault_pass = " + m_password + "\n");
    folder.Write("rabbit/broker.log", "");
    const auto environment = Environment(folder, ports[1], ports[2]);
    // Ours, so that the node does not leave a detached one behind.
    m_nameServer.emplace(
        ChildProgram{
            "the name server of the broker",
            nameServer,
            {"-port", std::to_string(ports[1]), "-address", "127.0.0.1"},
            environment,
            folder.Path("rabbit/epmd.log")},
        onEnd);
    // What would be written down at its end goes with the folder.
    m_node.emplace(
        ChildProgram{"the broker", server, {}, environment, m_output, folder.IsKept() ? SIGTERM : SIGKILL}, onEnd);
}

bool PrivateBroker::IsUp() const
{
    return ReadAll(m_output).find("Server startup complete") != std::string::npos;
}

std::string PrivateBroker::Obituary() const
{
    if (m_node->HasEnded())
    {
        return m_node->Obituary();
    }
    return m_nameServer->HasEnded() ? m_nameServer->Obituary() : "";
}

bool PrivateBroker::HasLostAPort() const
{
    return !Obituary().empty() && ReadAll(m_output).find("eaddrinuse") != std::string::npos;
}

} // namespace VtxQel

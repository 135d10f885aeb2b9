#include "qel/Client.h"

#include "ConsumingLoop.h"
#include "UnaryCalls.h"
#include "qel/apps/v1/applications.grpc.pb.h"

#include <grpcpp/grpcpp.h>

#include <cstdlib>
#include <iostream>
#include <mutex>

#include <unistd.h>

namespace qel
{

namespace v1 = apps::v1;

namespace
{

std::string DefaultSocket(const std::string& application)
{
    const char* directory = std::getenv("QEL_RUNTIME_DIRECTORY");
    return std::string(directory == nullptr ? "/run/qel" : directory) + "/apps/" + application + ".sock";
}

std::string DefaultInstance()
{
    char host[33] = {};
    gethostname(host, sizeof(host) - 1);
    return std::string(host) + "/" + std::to_string(getpid());
}

Options Completed(Options options, const std::string& application)
{
    if (options.socket.empty())
    {
        options.socket = DefaultSocket(application);
    }
    if (options.instance.empty())
    {
        options.instance = DefaultInstance();
    }
    if (!options.log)
    {
        options.log = [application](const std::string& line) { std::clog << application + ": " + line + "\n"; };
    }
    return options;
}

std::unique_ptr<v1::Applications::Stub> StubFor(const std::string& socket)
{
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    // A connection of its own for each client, and one that looks for the agent often: it is on this host.
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
    arguments.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, 100);
    arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1000);
    return v1::Applications::NewStub(
        grpc::CreateCustomChannel("unix:" + socket, grpc::InsecureChannelCredentials(), arguments));
}

} // namespace

/** What a client is made of: the connection, made when it is wanted because gRPC starts threads, and its two users. */
class Client::Implementation
{
  public:
    explicit Implementation(Options options) : m_options(std::move(options)), m_consuming(m_options) {}

    void Run(const ConsumingLoop::Handler& handler) { m_consuming.Run(Stub(), handler); }
    void Stop() { m_consuming.Stop(); }
    void Publish(const Publication& publication, std::chrono::milliseconds deadline)
    {
        qel::Publish(Stub(), publication, deadline);
    }
    Configuration RequestConfiguration(std::chrono::milliseconds deadline)
    {
        return qel::RequestConfiguration(Stub(), deadline);
    }

  private:
    v1::Applications::Stub& Stub()
    {
        std::call_once(m_once, [this] { m_stub = StubFor(m_options.socket); });
        return *m_stub;
    }

    const Options m_options;
    std::once_flag m_once;
    std::unique_ptr<v1::Applications::Stub> m_stub;
    ConsumingLoop m_consuming;
};

Client::Client(const std::string& application, Options options)
    : m_implementation(std::make_unique<Implementation>(Completed(std::move(options), application)))
{
}

Client::~Client() = default;

void Client::RunHandler(std::function<Verdict(const Message&)> handler)
{
    m_implementation->Run(handler);
}

void Client::Stop()
{
    m_implementation->Stop();
}

void Client::Publish(const Publication& publication, std::chrono::milliseconds deadline)
{
    m_implementation->Publish(publication, deadline);
}

Configuration Client::RequestConfiguration(std::chrono::milliseconds deadline)
{
    return m_implementation->RequestConfiguration(deadline);
}

} // namespace qel

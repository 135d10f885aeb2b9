#include "apps/ApplicationServer.h"

#include <grpcpp/resource_quota.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <grpcpp/server_posix.h>

#include <sys/stat.h>
#include <unistd.h>

namespace VtxQel
{

namespace
{

/** What one application's connections may use for reading and writing. */
constexpr std::size_t memoryQuota = 268435456;
constexpr int mostStreamsOfAConnection = 256;
/** A connection without any call is closed after this long, so that forgotten ones do not use up the places. */
constexpr int longestIdleMilliseconds = 600000;

ino_t InodeOf(int descriptor)
{
    struct stat info = {};
    return ::fstat(descriptor, &info) == 0 ? info.st_ino : 0;
}

} // namespace

ApplicationServer::ApplicationServer(ServiceContext context) : m_service(std::move(context)) {}

ApplicationServer::~ApplicationServer()
{
    Stop(std::chrono::milliseconds(100));
}

bool ApplicationServer::Serve(int socket)
{
    const std::lock_guard lock(m_mutex);
    if (m_connections.size() >= mostConnections)
    {
        SweepClosed();
    }
    if (m_stopped || m_connections.size() >= mostConnections)
    {
        ::close(socket);
        return false;
    }
    if (!m_server)
    {
        Start();
    }
    m_connections.push_back({socket, InodeOf(socket)});
    grpc::AddInsecureChannelFromFd(m_server.get(), socket);
    return true;
}

void ApplicationServer::Stop(std::chrono::milliseconds budget)
{
    std::unique_ptr<grpc::Server> server;
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
        server = std::move(m_server);
    }
    if (server)
    {
        server->Shutdown(std::chrono::system_clock::now() + budget);
    }
}

void ApplicationServer::Start()
{
    grpc::ServerBuilder builder;
    grpc::ResourceQuota quota;
    quota.Resize(memoryQuota);
    builder.SetResourceQuota(quota);
    builder.SetMaxReceiveMessageSize(mostRequestBytes);
    builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, mostStreamsOfAConnection);
    builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_IDLE_MS, longestIdleMilliseconds);
    builder.RegisterService(&m_service);
    m_server = builder.BuildAndStart();
}

/** A descriptor that is closed, or stands for another file by now, is a connection that has ended. */
void ApplicationServer::SweepClosed()
{
    std::erase_if(
        m_connections, [](const Connection& connection) { return InodeOf(connection.descriptor) != connection.inode; });
}

} // namespace VtxQel

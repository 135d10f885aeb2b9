#pragma once

#include "apps/ApplicationService.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include <sys/types.h>

namespace grpc
{
class Server;
}

namespace VtxQel
{

/** The gRPC server of one application, on sockets that others have accepted. Any thread may call. */
class ApplicationServer
{
  public:
    explicit ApplicationServer(ServiceContext context);
    /** As Stop() with a short budget. */
    ~ApplicationServer();
    ApplicationServer(const ApplicationServer&) = delete;
    ApplicationServer& operator=(const ApplicationServer&) = delete;

    /**
     * Serves a connected socket, which the server owns from now on. The server itself starts with the first one.
     * @return `false`, and the socket is closed, when there are too many already or the server has stopped.
     */
    bool Serve(int socket);
    void ConfigurationChanged() { m_service.ConfigurationChanged(); }
    void BrokerChanged() { m_service.BrokerChanged(); }
    /** Ends every stream and call, at the latest after the budget, and every connection. Idempotent. */
    void Stop(std::chrono::milliseconds budget);

    static constexpr std::size_t mostConnections = 64;
    /** The largest request, which bounds the body of a published message. */
    static constexpr int mostRequestBytes = 16 * 1024 * 1024;

  private:
    /** A socket that was given to gRPC, which does not tell when it closes it. */
    struct Connection
    {
        int descriptor;
        ino_t inode;
    };

    void Start();
    void SweepClosed();

    ApplicationService m_service;
    std::mutex m_mutex;
    /** Guarded by m_mutex, like everything below. */
    std::unique_ptr<grpc::Server> m_server;
    std::vector<Connection> m_connections;
    bool m_stopped = false;
};

} // namespace VtxQel

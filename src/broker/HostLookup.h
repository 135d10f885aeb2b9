#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * HostLookup finds the addresses of a host on a thread of its own, which nobody waits for: the system's resolver may
 * block for longer than a stop may take, and it cannot be interrupted. Used on the I/O thread; destroyed before the
 * io_context is.
 */
class HostLookup
{
  public:
    using Endpoints = std::vector<boost::asio::ip::tcp::endpoint>;
    /** Hears the addresses in the order to try them, or why there are none, on the io_context's thread. */
    using Done = std::function<void(const Endpoints& endpoints, const std::string& why)>;

    HostLookup(boost::asio::io_context& io, const std::string& host, std::uint16_t port, Done done);
    /** Nobody is told any more. */
    ~HostLookup();
    HostLookup(const HostLookup&) = delete;
    HostLookup& operator=(const HostLookup&) = delete;

  private:
    struct Shared;

    static void Tell(Shared& shared, const Endpoints& endpoints, const std::string& why);
    static void Run(const std::shared_ptr<Shared>& shared, const std::string& host, std::uint16_t port);

    std::shared_ptr<Shared> m_shared;
};

} // namespace VtxQel

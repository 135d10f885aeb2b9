#include "broker/HostLookup.h"

#include <boost/asio/post.hpp>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <netdb.h>

namespace VtxQel
{

using Tcp = boost::asio::ip::tcp;

/** What the lookup and its thread both hold, so that either may be gone first. */
struct HostLookup::Shared
{
    std::mutex mutex;
    /** Null when nobody wants the result any more. */
    boost::asio::io_context* io = nullptr;
    /** Used on the I/O thread only. */
    Done done;
};

void HostLookup::Tell(Shared& shared, const Endpoints& endpoints, const std::string& why)
{
    // Taken out first: what it calls may destroy the lookup.
    if (const Done told = std::exchange(shared.done, nullptr))
    {
        told(endpoints, why);
    }
}

HostLookup::HostLookup(boost::asio::io_context& io, const std::string& host, std::uint16_t port, Done done)
    : m_shared(std::make_shared<Shared>())
{
    m_shared->io = &io;
    m_shared->done = std::move(done);
    try
    {
        std::thread([shared = m_shared, host, port] { Run(shared, host, port); }).detach();
    }
    catch (const std::system_error& e)
    {
        boost::asio::post(io, [shared = m_shared, why = std::string(e.what())] { Tell(*shared, {}, why); });
    }
}

HostLookup::~HostLookup()
{
    m_shared->done = nullptr;
    const std::lock_guard lock(m_shared->mutex);
    m_shared->io = nullptr;
}

void HostLookup::Run(const std::shared_ptr<Shared>& shared, const std::string& host, std::uint16_t port)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    const std::string why = status == 0            ? ""
                            : status == EAI_SYSTEM ? std::generic_category().message(errno)
                                                   : gai_strerror(status);
    Endpoints endpoints;
    for (const addrinfo* each = found; each != nullptr; each = each->ai_next)
    {
        Tcp::endpoint endpoint;
        if (each->ai_addrlen <= endpoint.capacity())
        {
            endpoint.resize(each->ai_addrlen);
            std::memcpy(endpoint.data(), each->ai_addr, each->ai_addrlen);
            endpoints.push_back(endpoint);
        }
    }
    if (found != nullptr)
    {
        freeaddrinfo(found);
    }
    const std::lock_guard lock(shared->mutex);
    if (shared->io != nullptr)
    {
        boost::asio::post(
            *shared->io, [shared, endpoints = std::move(endpoints), why] { Tell(*shared, endpoints, why); });
    }
}

} // namespace VtxQel

#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <string>

namespace VtxQel
{

/**
 * The address of the loopback interface that a text such as "127.0.0.1:9477" or "[::1]:9477" names; port 0 leaves the
 * choice to the kernel.
 * @throws AdminException saying what is wrong with it and what it should be.
 */
boost::asio::ip::tcp::endpoint LoopbackEndpoint(const std::string& text);

/** Whether the value of a request's `Host` names the loopback interface, with or without a port. */
bool IsLoopbackHost(const std::string& host);

} // namespace VtxQel

#pragma once

#include "broker/AmqpConnection.h"
#include "broker/ConnectionSource.h"
#include "broker/LinkState.h"

#include <boost/asio/io_context.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace VtxQel
{

/**
 * Handshakes opens connections as an agent does, TLS and login included, and closes each in order as soon as it is
 * open: so many at a time, one after the other, on the thread that calls.
 */
class Handshakes
{
  public:
    struct Figures
    {
        std::uint64_t opened = 0;
        /** Ended before they were open. */
        std::uint64_t failed = 0;
        std::chrono::duration<double> time{0};
    };

    /** @throws RmqConnectionException for a malformed URL */
    explicit Handshakes(LinkSettings settings);
    /** Goes on for this long. @param atATime how many connections are being opened or closed at any moment */
    Figures Run(std::size_t atATime, std::chrono::milliseconds duration);

  private:
    /** One after the other. */
    class Chain;

    const LinkSettings m_settings;
    boost::asio::io_context m_io{1};
    LinkState m_state;
    ConnectionSource m_source;
    Figures m_figures;
};

} // namespace VtxQel

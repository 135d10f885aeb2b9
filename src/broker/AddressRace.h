#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * AddressRace connects to the first of several addresses that answers.
 *
 * It tries them in their order, each one when those before it have failed or have not answered for a moment, so a dead
 * address costs that moment and not the whole time that it is given. Everything happens on the io_context's thread.
 * Used once; held by a shared pointer because the handlers in flight keep it alive.
 */
class AddressRace : public std::enable_shared_from_this<AddressRace>
{
  public:
    using Tcp = boost::asio::ip::tcp;

    /** An address that did not take us, and why. */
    struct Failure
    {
        Tcp::endpoint address;
        std::string why;
    };
    /** The socket is open and connected to its address, or closed when no address has answered. */
    using Done = std::function<void(Tcp::socket&& socket, const std::vector<Failure>& failures)>;

    AddressRace(boost::asio::io_context& io, std::vector<Tcp::endpoint> addresses);

    /** @param done called once, never from within this call. */
    void Start(Done done);
    /** Ends the race without a winner. */
    void Cancel();

    static constexpr std::chrono::milliseconds HEAD_START{250};
    static constexpr std::chrono::seconds PATIENCE{5};

  private:
    struct Attempt
    {
        Attempt(boost::asio::io_context& io, const Tcp::endpoint& to) : address(to), socket(io), timer(io) {}

        Tcp::endpoint address;
        Tcp::socket socket;
        boost::asio::steady_timer timer;
        bool timedOut = false;
    };
    using AttemptPtr = std::shared_ptr<Attempt>;

    void StartNext();
    void OnConnect(const AttemptPtr& attempt, const boost::system::error_code& error);
    void StopOthers();
    void Finish(Tcp::socket&& socket);

    boost::asio::io_context& m_io;
    const std::vector<Tcp::endpoint> m_addresses;
    std::size_t m_next = 0;
    std::list<AttemptPtr> m_attempts;
    boost::asio::steady_timer m_headStart;
    std::vector<Failure> m_failures;
    Done m_done;
};

} // namespace VtxQel

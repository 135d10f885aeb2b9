#pragma once

#include "broker/BrokerLink.h"
#include "broker/BrokerUrl.h"
#include "broker/HostLookup.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace VtxQel
{

/** A TLS context: TLS 1.2 or newer, the peer verified, our certificate if there is one. @throws RmqConnectionException
 */
std::shared_ptr<boost::asio::ssl::context> MakeTlsContext(const TlsFiles& files);

/**
 * BrokerSocket is a byte stream to a broker, over TCP or TLS.
 *
 * Connecting resolves the host name and tries each of its addresses in turn. Everything happens on the io_context's
 * thread; handlers are called from there, also after Close(), then with an error. Used once; held by a shared pointer
 * because the handlers in flight keep it alive.
 */
class BrokerSocket : public std::enable_shared_from_this<BrokerSocket>
{
  public:
    /** Empty when connected, else why not. */
    using OnConnect = std::function<void(const std::string& why)>;
    using OnTransfer = std::function<void(const boost::system::error_code& error, std::size_t count)>;

    BrokerSocket(boost::asio::io_context& io, BrokerUrl url, std::shared_ptr<boost::asio::ssl::context> tls);

    /** @param userTimeout how long sent bytes may stay unacknowledged before the kernel gives up; 0: its default. */
    void Connect(std::chrono::milliseconds userTimeout, OnConnect done);
    void Read(char* space, std::size_t size, OnTransfer done);
    void Write(const std::string& bytes, OnTransfer done);
    void Close();

    static constexpr std::chrono::seconds ADDRESS_TIMEOUT{5};
    static constexpr std::chrono::seconds LOOKUP_TIMEOUT{10};

  private:
    using Tcp = boost::asio::ip::tcp;
    using TlsStream = boost::asio::ssl::stream<Tcp::socket&>;

    void OnResolved(const HostLookup::Endpoints& endpoints, const std::string& why);
    void TryNextAddress();
    void OnAddress(const boost::system::error_code& error);
    void SetOptions();
    void StartTls();
    void OnTls(const boost::system::error_code& error);
    void Finish(const std::string& why);

    BrokerUrl m_url;
    std::shared_ptr<boost::asio::ssl::context> m_tlsContext;
    boost::asio::io_context& m_io;
    std::optional<HostLookup> m_lookup;
    Tcp::socket m_socket;
    std::optional<TlsStream> m_tls;
    boost::asio::steady_timer m_timer;
    /** Those that are still to be tried, the current one first. */
    std::deque<Tcp::endpoint> m_addresses;
    std::chrono::milliseconds m_userTimeout{0};
    bool m_timedOut = false;
    bool m_closed = false;
    std::string m_errors;
    OnConnect m_done;
};

} // namespace VtxQel

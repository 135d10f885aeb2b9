#pragma once

#include "broker/AddressRace.h"
#include "broker/BrokerUrl.h"
#include "broker/HostLookup.h"
#include "broker/TlsMaterial.h"
#include "broker/TlsPeer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * BrokerSocket is a byte stream to a broker, over TCP or TLS.
 *
 * Connecting resolves the host name and takes the first of its addresses that answers and, with TLS, agrees to the
 * handshake. Everything happens on the io_context's thread; handlers are called from there, also after Close(), then
 * with an error. Used once; held by a shared pointer because the handlers in flight keep it alive.
 */
class BrokerSocket : public std::enable_shared_from_this<BrokerSocket>
{
  public:
    /** Empty when connected, else why not. */
    using OnConnect = std::function<void(const std::string& why)>;
    using OnTransfer = std::function<void(const boost::system::error_code& error, std::size_t count)>;

    /** @param tls what to make a TLS connection with; nullptr when the URL asks for none. */
    BrokerSocket(boost::asio::io_context& io, BrokerUrl url, std::shared_ptr<const TlsMaterial> tls);

    /** @param userTimeout how long sent bytes may stay unacknowledged before the kernel gives up; 0: its default. */
    void Connect(std::chrono::milliseconds userTimeout, OnConnect done);
    void Read(char* space, std::size_t size, OnTransfer done);
    void Write(const std::string& bytes, OnTransfer done);
    void Close();
    /** How many bytes have come and are not read yet; of TLS the encrypted ones, of which a read takes one record. */
    std::size_t Waiting();

    /** What an error of reading or writing means. */
    std::string Explain(const boost::system::error_code& error) const;
    /** When the broker's certificate expires, as TlsPeer::NotAfter; 0 without TLS. */
    std::int64_t PeerNotAfter() const { return m_peer ? m_peer->NotAfter() : 0; }

    static constexpr std::chrono::seconds HANDSHAKE_TIMEOUT{5};
    static constexpr std::chrono::seconds LOOKUP_TIMEOUT{10};

  private:
    using Tcp = boost::asio::ip::tcp;
    using TlsStream = boost::asio::ssl::stream<Tcp::socket&>;

    void OnResolved(const HostLookup::Endpoints& endpoints, const std::string& why);
    void TryAddresses();
    void OnRaced(Tcp::socket&& socket, const std::vector<AddressRace::Failure>& failures);
    void Exclude(const Tcp::endpoint& address, const std::string& why);
    void SetOptions();
    void StartTls();
    void StartHandshakeTimer();
    void OnTls(const boost::system::error_code& error);
    void Finish(const std::string& why);

    BrokerUrl m_url;
    const std::shared_ptr<const TlsMaterial> m_material;
    boost::asio::io_context& m_io;
    std::optional<HostLookup> m_lookup;
    Tcp::socket m_socket;
    /** Of the address that was tried last. */
    std::optional<TlsPeer> m_peer;
    std::optional<TlsStream> m_tls;
    boost::asio::steady_timer m_timer;
    /** Those that have not failed, in the order to try them. */
    std::vector<Tcp::endpoint> m_addresses;
    std::shared_ptr<AddressRace> m_race;
    /** The one that the socket is connected to. */
    Tcp::endpoint m_address;
    std::chrono::milliseconds m_userTimeout{0};
    bool m_timedOut = false;
    bool m_closed = false;
    std::string m_errors;
    OnConnect m_done;
};

} // namespace VtxQel

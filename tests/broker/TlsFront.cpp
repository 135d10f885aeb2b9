#include "broker/TlsFront.h"

#include "broker/BrokerUrl.h"
#include "broker/LinkHarness.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>

#include <array>
#include <thread>

namespace VtxQel
{

namespace asio = boost::asio;
using boost::system::error_code;
using Tcp = asio::ip::tcp;

namespace
{

/** One client: bytes go both ways until either side ends. */
class Session : public std::enable_shared_from_this<Session>
{
  public:
    Session(Tcp::socket client, asio::ssl::context& tls)
        : m_client(std::move(client), tls), m_node(m_client.get_executor())
    {
    }

    void Start(const Tcp::endpoint& node)
    {
        m_client.async_handshake(
            asio::ssl::stream_base::server,
            [self = shared_from_this(), node](const error_code& error)
            {
                error_code failed = error;
                if (!failed)
                {
                    self->m_node.connect(node, failed);
                }
                if (!failed)
                {
                    self->Pass(self->m_client, self->m_node, self->m_up);
                    self->Pass(self->m_node, self->m_client, self->m_down);
                }
            });
    }

  private:
    using Buffer = std::array<char, 65536>;

    template <typename From, typename To>
    void Pass(From& from, To& to, Buffer& buffer)
    {
        from.async_read_some(
            asio::buffer(buffer),
            [self = shared_from_this(), &from, &to, &buffer](const error_code& error, std::size_t count)
            {
                if (error)
                {
                    self->Close();
                    return;
                }
                asio::async_write(
                    to, asio::buffer(buffer.data(), count),
                    [self, &from, &to, &buffer](const error_code& failed, std::size_t)
                    {
                        if (!failed)
                        {
                            self->Pass(from, to, buffer);
                        }
                    });
            });
    }

    void Close()
    {
        error_code ignored;
        m_client.lowest_layer().close(ignored);
        m_node.close(ignored);
    }

    asio::ssl::stream<Tcp::socket> m_client;
    Tcp::socket m_node;
    Buffer m_up{};
    Buffer m_down{};
};

} // namespace

class TlsFront::Impl
{
  public:
    Impl(const TlsFiles& files, const std::string& clientAuthority, bool onlyOldTls)
        : m_acceptor(m_io, {asio::ip::address_v4::loopback(), 0}), m_tls(asio::ssl::context::tls_server)
    {
        m_tls.use_certificate_chain_file(files.certificateFile);
        m_tls.use_private_key_file(files.keyFile, asio::ssl::context::pem);
        if (!clientAuthority.empty())
        {
            m_tls.load_verify_file(clientAuthority);
            m_tls.set_verify_mode(asio::ssl::verify_peer | asio::ssl::verify_fail_if_no_peer_cert);
        }
        if (onlyOldTls)
        {
            SSL_CTX_set_security_level(m_tls.native_handle(), 0);
            SSL_CTX_set_min_proto_version(m_tls.native_handle(), TLS1_VERSION);
            SSL_CTX_set_max_proto_version(m_tls.native_handle(), TLS1_1_VERSION);
        }
        Accept();
        m_thread = std::thread([this] { m_io.run(); });
    }

    ~Impl()
    {
        m_io.stop();
        m_thread.join();
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    std::uint16_t Port() const { return m_acceptor.local_endpoint().port(); }

  private:
    void Accept()
    {
        m_acceptor.async_accept(
            [this](const error_code& error, Tcp::socket client)
            {
                if (!error)
                {
                    const BrokerUrl node = BrokerUrl::Parse(NodeUrl());
                    std::make_shared<Session>(std::move(client), m_tls)
                        ->Start({asio::ip::make_address(node.host), node.port});
                    Accept();
                }
            });
    }

    asio::io_context m_io;
    Tcp::acceptor m_acceptor;
    asio::ssl::context m_tls;
    std::thread m_thread;
};

TlsFront::TlsFront(const TlsFiles& files, const std::string& clientAuthority, bool onlyOldTls)
    : m_impl(std::make_unique<Impl>(files, clientAuthority, onlyOldTls))
{
}

TlsFront::~TlsFront() = default;

std::uint16_t TlsFront::Port() const
{
    return m_impl->Port();
}

} // namespace VtxQel

#include "Handshakes.h"

#include <boost/asio/post.hpp>

#include <utility>

namespace VtxQel
{

class Handshakes::Chain : private AmqpConnectionHandler
{
  public:
    explicit Chain(Handshakes& owner) : m_owner(owner) {}
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;
    ~Chain() override
    {
        if (m_connection)
        {
            m_connection->Drop();
        }
    }

    void Next()
    {
        m_opened = false;
        m_connection = m_owner.m_source.Make(0, ConnectionUse::consuming, *this);
        m_connection->Open();
    }

  private:
    void OnOpen() override
    {
        m_opened = true;
        ++m_owner.m_figures.opened;
        m_connection->Close();
    }
    void OnMethod(std::uint16_t, const amqp_method_t&) override {}
    void OnContent(std::uint16_t, AmqpContent&&) override {}
    void OnBlocked(bool, const std::string&) override {}
    void OnReadEnd() override {}
    void OnWritten() override {}
    void OnClosed(const std::string&) override
    {
        m_owner.m_figures.failed += m_opened ? 0 : 1;
        // It is the connection that calls, so it cannot be replaced here.
        boost::asio::post(m_owner.m_io, [this] { Next(); });
    }

    Handshakes& m_owner;
    std::shared_ptr<AmqpConnection> m_connection;
    bool m_opened = false;
};

Handshakes::Handshakes(LinkSettings settings) : m_settings(std::move(settings)), m_source(m_io, m_settings, m_state) {}

Handshakes::Figures Handshakes::Run(std::size_t atATime, std::chrono::milliseconds duration)
{
    std::vector<std::unique_ptr<Chain>> chains;
    for (std::size_t count = 0; count < atATime; ++count)
    {
        chains.push_back(std::make_unique<Chain>(*this));
        chains.back()->Next();
    }
    const auto began = std::chrono::steady_clock::now();
    m_io.run_for(duration);
    m_figures.time = std::chrono::steady_clock::now() - began;
    return m_figures;
}

} // namespace VtxQel

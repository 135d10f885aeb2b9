#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BackOff.h"
#include "broker/BrokerLink.h"
#include "broker/BrokerUrl.h"
#include "broker/LinkState.h"
#include "broker/TlsStore.h"
#include "logging/RepeatedWarnings.h"

#include <memory>
#include <string>
#include <vector>

namespace VtxQel
{

/** What a connection is for; the broker's tools show it behind the connection's name. */
enum class ConnectionUse
{
    consuming,
    publishing,
    trial
};

/**
 * ConnectionSource knows where the broker is: it makes connections to the configured URLs, with the TLS files as they
 * are at that moment. Lives on the I/O thread.
 */
class ConnectionSource
{
  public:
    /** @throws RmqConnectionException for a malformed URL */
    ConnectionSource(boost::asio::io_context& io, const LinkSettings& settings, LinkState& state);

    /** What both links complain about; of the same trouble one line is enough. */
    RepeatedWarnings& Warnings() { return m_warnings; }
    std::size_t UrlCount() const { return m_urls.size(); }
    const BrokerUrl& Url(std::size_t index) const { return m_urls[index]; }
    /** The name that we log in with at this URL. */
    const LinkSettings& Settings() const { return m_settings; }

    /**
     * A connection that is still to be opened.
     * @throws RmqConnectionException when the TLS files cannot be used and never could
     */
    std::shared_ptr<AmqpConnection> Make(std::size_t urlIndex, ConnectionUse use, AmqpConnectionHandler& handler);
    /** Takes these TLS files for connections made from now on. */
    void UseTls(const TlsFiles& files) { m_tls.Use(files); }

    /** Logs in with this password from now on, unless it is empty: then with those of the URLs. */
    void UsePassword(const std::string& password);

  private:
    boost::asio::io_context& m_io;
    const LinkSettings& m_settings;
    RepeatedWarnings m_warnings;
    std::vector<BrokerUrl> m_urls;
    TlsStore m_tls;
};

} // namespace VtxQel

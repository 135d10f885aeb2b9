#pragma once

#include "broker/CertificateExpiry.h"
#include "broker/LinkState.h"
#include "broker/TlsMaterial.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <memory>
#include <string>

namespace VtxQel
{

/**
 * TlsStore has what the next TLS connection is made with, and knows when certificates expire.
 *
 * The files are read anew for every connection, so that they can be replaced while we run. Files that cannot be used
 * (replaced by half, for instance) change nothing: the contents that were read last stay in use, and the log says so
 * once. Expiry times go into the link's state; what expires within 30 days is warned of once a day. Lives on the I/O
 * thread.
 */
class TlsStore
{
  public:
    TlsStore(boost::asio::io_context& io, TlsFiles files, LinkState& state);

    /** For a new connection. @throws RmqConnectionException when the files have never been usable */
    std::shared_ptr<const TlsMaterial> Read();
    /** Takes other files, or the same ones with other contents, for connections made from now on. */
    void Use(const TlsFiles& files);
    /** A broker has shown its certificate. @param url without secrets */
    void OnBrokerCertificate(const std::string& url, std::int64_t notAfter);

  private:
    void WarnOfExpiry();
    void WarnOfExpiry(const std::string& name, std::int64_t notAfter);
    void WarnLater();

    TlsFiles m_files;
    LinkState& m_state;
    std::shared_ptr<const TlsMaterial> m_material;
    /** What was wrong at the last reading, so that it is told once. */
    std::string m_fault;
    std::string m_brokerUrl;
    std::int64_t m_brokerNotAfter = 0;
    ExpiryWarnings m_warnings;
    boost::asio::steady_timer m_timer;
    bool m_watching = false;
};

} // namespace VtxQel

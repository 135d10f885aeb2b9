#pragma once

#include "broker/BrokerUrl.h"
#include "broker/TlsMaterial.h"

#include <boost/asio/ssl/verify_context.hpp>
#include <boost/system/error_code.hpp>

#include <cstdint>
#include <memory>
#include <string>

using SSL = struct ssl_st;

namespace VtxQel
{

/**
 * TlsPeer is what one connection knows of the broker at its other end: whom it has to be, what its certificate says,
 * and, when something fails, why in words for an operator. It lives as long as the SSL object that it prepares.
 */
class TlsPeer
{
  public:
    TlsPeer(const BrokerUrl& url, std::shared_ptr<const TlsMaterial> material);
    TlsPeer(const TlsPeer&) = delete;
    TlsPeer& operator=(const TlsPeer&) = delete;

    /** Has the certificate checked against the URL's host and names that host to the broker (SNI). @return success */
    bool Prepare(SSL* ssl) const;

    /** For the stream's verify callback: looks at each certificate, decides nothing. */
    bool OnCertificate(bool accepted, boost::asio::ssl::verify_context& context);

    /** Why the handshake, or reading and writing after it, has failed. */
    std::string Explain(const boost::system::error_code& error) const;

    /**
     * When the broker's certificate expires, in seconds since the epoch; 0 when it has shown none that, but for its
     * time, can be trusted.
     */
    std::int64_t NotAfter() const;

  private:
    std::string ExplainCertificate() const;
    std::string ExplainAlert(int alert) const;
    std::string Authorities() const;

    const std::string m_host;
    const std::string m_hostAndPort;
    const std::shared_ptr<const TlsMaterial> m_material;
    std::int64_t m_notAfter = 0;
    /** The first fault found, an X509_V_ERR_ number, and the certificate that has it. */
    int m_fault = 0;
    bool m_faultOfBroker = true;
    std::string m_subject;
    std::string m_issuer;
    std::string m_names;
    std::int64_t m_faultNotBefore = 0;
    std::int64_t m_faultNotAfter = 0;
};

} // namespace VtxQel

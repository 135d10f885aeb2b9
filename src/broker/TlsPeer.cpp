#include "broker/TlsPeer.h"

#include "broker/CertificateExpiry.h"
#include "common/Printable.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/error.hpp>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <utility>

namespace VtxQel
{

namespace asio = boost::asio;
using boost::system::error_code;

namespace
{

constexpr int MOST_NAMES = 5;

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free)>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)>;

bool IsAddress(const std::string& host)
{
    error_code error;
    asio::ip::make_address(host, error);
    return !error;
}

std::string TextOf(BIO* output)
{
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(output, &bytes);
    return Printable({bytes, static_cast<std::size_t>(size)});
}

std::string TextOf(const X509_NAME* name)
{
    const BioPtr output(BIO_new(BIO_s_mem()), &BIO_free);
    X509_NAME_print_ex(output.get(), name, 0, XN_FLAG_RFC2253);
    return TextOf(output.get());
}

/** Whom the certificate is for. */
std::string NamesOf(const X509* certificate)
{
    const NamesPtr names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)),
        &GENERAL_NAMES_free);
    const BioPtr output(BIO_new(BIO_s_mem()), &BIO_free);
    const int count = names ? sk_GENERAL_NAME_num(names.get()) : 0;
    for (int i = 0; i < count && i < MOST_NAMES; ++i)
    {
        BIO_puts(output.get(), i == 0 ? "" : ", ");
        GENERAL_NAME_print(output.get(), sk_GENERAL_NAME_value(names.get(), i));
    }
    BIO_puts(output.get(), count > MOST_NAMES ? ", ..." : "");
    return count == 0 ? "nobody (it has no subjectAltName)" : TextOf(output.get());
}

std::string Now()
{
    return UtcText(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

bool IsAnotherHost(int fault)
{
    return fault == X509_V_ERR_HOSTNAME_MISMATCH || fault == X509_V_ERR_IP_ADDRESS_MISMATCH;
}

bool IsUntrusted(int fault)
{
    switch (fault)
    {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
        return true;
    default:
        return false;
    }
}

} // namespace

TlsPeer::TlsPeer(const BrokerUrl& url, std::shared_ptr<const TlsMaterial> material)
    : m_host(url.host), m_hostAndPort(Printable(url.host) + ":" + std::to_string(url.port)),
      m_material(std::move(material))
{
}

bool TlsPeer::Prepare(SSL* ssl) const
{
    X509_VERIFY_PARAM* parameters = SSL_get0_param(ssl);
    if (IsAddress(m_host))
    {
        return X509_VERIFY_PARAM_set1_ip_asc(parameters, m_host.c_str()) == 1;
    }
    X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return X509_VERIFY_PARAM_set1_host(parameters, m_host.c_str(), m_host.size()) == 1 &&
           SSL_set_tlsext_host_name(ssl, m_host.c_str()) == 1;
}

bool TlsPeer::OnCertificate(bool accepted, asio::ssl::verify_context& context)
{
    X509_STORE_CTX* store = context.native_handle();
    if (const X509* broker = X509_STORE_CTX_get0_cert(store))
    {
        m_notAfter = SecondsOf(X509_get0_notAfter(broker));
    }
    const X509* certificate = X509_STORE_CTX_get_current_cert(store);
    if (!accepted && certificate != nullptr)
    {
        m_fault = X509_STORE_CTX_get_error(store);
        m_faultOfBroker = X509_STORE_CTX_get_error_depth(store) == 0;
        m_subject = TextOf(X509_get_subject_name(certificate));
        m_issuer = TextOf(X509_get_issuer_name(certificate));
        m_names = NamesOf(certificate);
        m_faultNotBefore = SecondsOf(X509_get0_notBefore(certificate));
        m_faultNotAfter = SecondsOf(X509_get0_notAfter(certificate));
    }
    return accepted;
}

std::int64_t TlsPeer::NotAfter() const
{
    const bool trusted =
        m_fault == X509_V_OK || m_fault == X509_V_ERR_CERT_HAS_EXPIRED || m_fault == X509_V_ERR_CERT_NOT_YET_VALID;
    return trusted ? m_notAfter : 0;
}

std::string TlsPeer::Authorities() const
{
    const std::string& file = m_material->files.caFile;
    return file.empty() ? "the system's authorities" : "the CA file " + file;
}

std::string TlsPeer::ExplainCertificate() const
{
    const std::string whose =
        m_faultOfBroker ? "the certificate of " + m_hostAndPort
                        : "the authority " + m_subject + " that vouches for the certificate of " + m_hostAndPort;
    if (m_fault == X509_V_ERR_CERT_HAS_EXPIRED)
    {
        return whose + " expired on " + UtcText(m_faultNotAfter) + ": have it renewed (or is our clock wrong? It is " +
               Now() + ")";
    }
    if (m_fault == X509_V_ERR_CERT_NOT_YET_VALID)
    {
        return whose + " is not valid before " + UtcText(m_faultNotBefore) + ": compare the clocks; ours says " + Now();
    }
    if (IsAnotherHost(m_fault))
    {
        return whose + " is for " + m_names + " and not for " + Printable(m_host) +
               ": write one of these into the URL, or have the certificate made for " + Printable(m_host);
    }
    if (IsUntrusted(m_fault))
    {
        return whose + " comes from " + m_issuer + ", which is not in " + Authorities() +
               ": if that is the broker's authority, put its certificate there";
    }
    if (m_fault == X509_V_ERR_CERT_SIGNATURE_FAILURE)
    {
        return whose + " is signed by another " + m_issuer + " than the one in " + Authorities() +
               ": put the broker's present authority there";
    }
    return whose + " is not accepted: " + X509_verify_cert_error_string(m_fault) + ": have another one made";
}

std::string TlsPeer::ExplainAlert(int alert) const
{
    const std::string& file = m_material->files.certificateFile;
    const std::string text = SSL_alert_desc_string_long(alert);
    switch (alert)
    {
    case TLS13_AD_CERTIFICATE_REQUIRED:
    case SSL3_AD_HANDSHAKE_FAILURE:
        if (file.empty())
        {
            return m_hostAndPort + " refuses us (" + text +
                   "): it probably wants a client certificate and we have none";
        }
        return m_hostAndPort + " refuses us (" + text + ")";
    case TLS1_AD_UNKNOWN_CA:
    case TLS1_AD_ACCESS_DENIED:
    case SSL3_AD_BAD_CERTIFICATE:
    case SSL3_AD_UNSUPPORTED_CERTIFICATE:
    case SSL3_AD_CERTIFICATE_REVOKED:
    case SSL3_AD_CERTIFICATE_EXPIRED:
    case SSL3_AD_CERTIFICATE_UNKNOWN:
        return m_hostAndPort + " does not accept our certificate" + (file.empty() ? "" : " " + file) + " (" + text +
               "): look at its time, and whether the broker knows its authority";
    case TLS1_AD_UNRECOGNIZED_NAME:
        return m_hostAndPort + " does not know the host name " + Printable(m_host) + ": write its own into the URL";
    default:
        return m_hostAndPort + " ends TLS with an alert: " + text;
    }
}

std::string TlsPeer::Explain(const error_code& error) const
{
    if (m_fault != X509_V_OK)
    {
        return "TLS: " + ExplainCertificate();
    }
    if (error.category() != asio::error::get_ssl_category())
    {
        return "TLS: " + m_hostAndPort + " ended the connection (" + error.message() +
               "): does it speak TLS on this port?";
    }
    const int reason = ERR_GET_REASON(static_cast<unsigned long>(error.value()));
    if (reason == SSL_R_WRONG_VERSION_NUMBER)
    {
        return "TLS: " + m_hostAndPort +
               " does not speak TLS: use the broker's TLS port, usually 5671; nothing is sent to it unencrypted";
    }
    if (reason == SSL_R_UNSUPPORTED_PROTOCOL || reason == SSL_R_TLSV1_ALERT_PROTOCOL_VERSION)
    {
        return "TLS: " + m_hostAndPort + " does not speak TLS 1.2 or newer: enable it there; older ones are not spoken";
    }
    if (reason > SSL_AD_REASON_OFFSET && reason <= SSL_AD_REASON_OFFSET + 255)
    {
        return "TLS: " + ExplainAlert(reason - SSL_AD_REASON_OFFSET);
    }
    return "TLS: the handshake with " + m_hostAndPort + " failed: " + error.message();
}

} // namespace VtxQel

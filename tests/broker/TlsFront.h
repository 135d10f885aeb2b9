#pragma once

#include "broker/BrokerLink.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace VtxQel
{

/** Certificates made for a test, in a folder that goes with the object. */
class TestCertificates
{
  public:
    TestCertificates();
    ~TestCertificates();
    TestCertificates(const TestCertificates&) = delete;
    TestCertificates& operator=(const TestCertificates&) = delete;

    /** An authority of its own. @return its certificate's file */
    std::string MakeAuthority(const std::string& name);
    /** A certificate NAME.pem with key NAME-key.pem; `san` is what OpenSSL calls a subjectAltName. */
    TlsFiles Issue(const std::string& authority, const std::string& name, const std::string& san, int days = 2);

  private:
    void OpenSsl(const std::string& arguments) const;

    std::filesystem::path m_folder;
};

/** Speaks TLS on a free port of the loopback and passes what it hears on to the test's node, which does not. */
class TlsFront
{
  public:
    /** @param clientAuthority when not empty, clients must show a certificate of this authority */
    explicit TlsFront(const TlsFiles& files, const std::string& clientAuthority = {}, bool onlyOldTls = false);
    ~TlsFront();
    TlsFront(const TlsFront&) = delete;
    TlsFront& operator=(const TlsFront&) = delete;

    std::uint16_t Port() const;

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace VtxQel

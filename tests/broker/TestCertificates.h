#pragma once

#include "broker/TlsFiles.h"

#include <filesystem>
#include <string>

namespace VtxQel
{

/** Certificates made for a test by the command openssl, in a folder that goes with the object. */
class TestCertificates
{
  public:
    TestCertificates();
    ~TestCertificates();
    TestCertificates(const TestCertificates&) = delete;
    TestCertificates& operator=(const TestCertificates&) = delete;

    /** An authority of its own. @return its certificate's file */
    std::string MakeAuthority(const std::string& name, int days = 2);
    /** A certificate NAME.pem with key NAME-key.pem; `san` is what OpenSSL calls a subjectAltName. */
    TlsFiles Issue(const std::string& authority, const std::string& name, const std::string& san, int days = 2);
    /** Runs openssl in the folder. */
    void OpenSsl(const std::string& arguments) const;
    /** A file of the folder. */
    std::string File(const std::string& name) const { return (m_folder / name).string(); }

  private:
    std::filesystem::path m_folder;
};

} // namespace VtxQel

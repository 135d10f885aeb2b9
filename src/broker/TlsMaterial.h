#pragma once

#include "broker/TlsFiles.h"

#include <boost/asio/ssl/context.hpp>

#include <cstdint>
#include <memory>

struct asn1_string_st;

namespace VtxQel
{

/** What a TLS connection is made with: the contents of files at one moment. Not changed any more. */
struct TlsMaterial
{
    TlsFiles files;
    /** TLS 1.2 or newer, the peer verified, our certificate if there is one. */
    std::shared_ptr<boost::asio::ssl::context> context;
    /** See CertificateExpiry. */
    std::int64_t clientNotAfter = 0;
    std::int64_t authorityNotAfter = 0;
};

/** Reads the files. @throws RmqConnectionException that names the files which cannot be used, and why */
std::shared_ptr<const TlsMaterial> ReadTlsMaterial(const TlsFiles& files);

/** A certificate's time in seconds since the epoch. */
std::int64_t SecondsOf(const asn1_string_st* time);

} // namespace VtxQel

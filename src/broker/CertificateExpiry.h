#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace VtxQel
{

/** When certificates stop being valid, in seconds since the epoch; 0 is not known or not there. */
struct CertificateExpiry
{
    /** Our own. */
    std::int64_t client = 0;
    /** The first one of the CA file; not known of the system's authorities. */
    std::int64_t authority = 0;
    /** The broker's, as shown at the last handshake. */
    std::int64_t broker = 0;
};

/** A time as people read it: "2026-11-21 06:22:07 UTC". */
std::string UtcText(std::int64_t secondsSinceEpoch);

/**
 * ExpiryWarnings tells when a certificate that expires within 30 days, or has expired, is to be warned of: once a day
 * for each, and again when another one has taken its place. For one thread.
 */
class ExpiryWarnings
{
  public:
    /** Whether to warn now of the certificate of this name, which then counts as warned of. */
    bool IsDue(const std::string& name, std::int64_t notAfter, std::int64_t now);

  private:
    struct Warned
    {
        std::int64_t notAfter = 0;
        std::int64_t when = 0;
    };

    std::map<std::string, Warned> m_warned;
};

} // namespace VtxQel

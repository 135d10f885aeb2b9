#pragma once

#include "broker/TlsFiles.h"

#include <cstdint>
#include <memory>
#include <string>

namespace VtxQel
{

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

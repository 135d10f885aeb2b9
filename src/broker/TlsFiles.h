#pragma once

#include <string>
#include <vector>

namespace VtxQel
{

/** Certificates for broker URLs of the scheme amqps, as PEM files; empty names are not used. */
struct TlsFiles
{
    /** What the broker's certificate is checked against; the system's authorities when empty. */
    std::string caFile;
    /** What we show the broker, with its key: both or neither. */
    std::string certificateFile;
    std::string keyFile;

    bool operator==(const TlsFiles&) const = default;
};

/** One of the files cannot be used. */
struct TlsFault
{
    /** Which one: a member of TlsFiles. */
    std::string TlsFiles::*file;
    /** A predicate with the cure, such as "cannot be read: ...", to be put behind the file's name. */
    std::string why;
};

/** Reads the files as a connection would; what keeps them from being used. */
std::vector<TlsFault> FindTlsFaults(const TlsFiles& files);

} // namespace VtxQel

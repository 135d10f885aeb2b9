#include "TextForms.h"

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <cstddef>

namespace VtxQel
{

bool IsText(const std::string& bytes)
{
    try
    {
        nlohmann::json(bytes).dump();
        return true;
    }
    catch (const nlohmann::json::type_error&)
    {
        return false;
    }
}

std::string ToBase64(const std::string& bytes)
{
    // Four letters for every three bytes and the terminating null that OpenSSL writes.
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    std::size_t length = 0;
    constexpr std::size_t chunk = 3U << 20;
    for (std::size_t at = 0; at < bytes.size(); at += chunk)
    {
        const std::size_t size = std::min(chunk, bytes.size() - at);
        length += static_cast<std::size_t>(EVP_EncodeBlock(
            reinterpret_cast<unsigned char*>(text.data()) + length,
            reinterpret_cast<const unsigned char*>(bytes.data()) + at, static_cast<int>(size)));
    }
    text.resize(length);
    return text;
}

std::string ForTerminal(const std::string& bytes)
{
    const std::string quoted = nlohmann::json(bytes).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string text = quoted.substr(1, quoted.size() - 2);
    // JSON leaves the one control character above ASCII's lower 32 alone; a terminal may not.
    for (std::size_t at = text.find('\x7f'); at != std::string::npos; at = text.find('\x7f', at))
    {
        text.replace(at, 1, "\\u007f");
    }
    return text;
}

} // namespace VtxQel

#include "agent/ConfigurationHash.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace VtxQel
{

namespace
{

constexpr std::size_t HASHED_BYTES = 8;

std::string Sha256(const void* bytes, std::size_t length)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    EVP_Digest(bytes, length, digest.data(), nullptr, EVP_sha256(), nullptr);
    std::string text;
    for (std::size_t index = 0; index < HASHED_BYTES; ++index)
    {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned>(digest[index]));
        text += digits.data();
    }
    return text;
}

} // namespace

std::string ConfigurationHash(const RmqBody& body)
{
    return Sha256(body.bytes, body.length);
}

std::string RoutesHash(const std::vector<RouteRecord>& routes)
{
    std::vector<std::string> lines;
    lines.reserve(routes.size());
    for (const RouteRecord& route : routes)
    {
        // Lengths, because a topic may hold any byte.
        lines.push_back(
            std::to_string(static_cast<int>(route.kind)) + " " + std::to_string(route.name.size()) + " " + route.name +
            " " + route.queue);
    }
    std::sort(lines.begin(), lines.end());
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    std::string all;
    for (const std::string& line : lines)
    {
        all += std::to_string(line.size()) + " " + line;
    }
    return Sha256(all.data(), all.size());
}

} // namespace VtxQel

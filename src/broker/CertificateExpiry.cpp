#include "broker/CertificateExpiry.h"

#include <array>
#include <ctime>

namespace VtxQel
{

namespace
{

constexpr std::int64_t DAY = 86400;
constexpr std::int64_t EARLY = 30 * DAY;

} // namespace

std::string UtcText(std::int64_t secondsSinceEpoch)
{
    const std::time_t seconds = secondsSinceEpoch;
    std::tm parts{};
    std::array<char, 32> text{};
    if (::gmtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
    {
        return std::to_string(secondsSinceEpoch) + " s since the epoch";
    }
    return text.data();
}

bool ExpiryWarnings::IsDue(const std::string& name, std::int64_t notAfter, std::int64_t now)
{
    Warned& warned = m_warned[name];
    if (notAfter == 0 || notAfter - now >= EARLY || (warned.notAfter == notAfter && now - warned.when < DAY))
    {
        return false;
    }
    warned = {notAfter, now};
    return true;
}

} // namespace VtxQel

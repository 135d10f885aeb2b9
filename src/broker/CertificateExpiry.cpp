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

std::string ExpiryWarnings::Due(const std::string& name, std::int64_t notAfter, std::int64_t now)
{
    Warned& warned = m_warned[name];
    if (notAfter == 0 || notAfter - now >= EARLY || (warned.notAfter == notAfter && now - warned.when < DAY))
    {
        return {};
    }
    warned = {notAfter, now};
    const std::string when = UtcText(notAfter);
    return notAfter <= now
               ? name + " expired on " + when + ": renew it"
               : name + " expires in " + std::to_string((notAfter - now) / DAY) + " days, on " + when + ": renew it";
}

} // namespace VtxQel

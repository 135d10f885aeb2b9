#include "broker/CertificateExpiry.h"

#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

constexpr std::int64_t DAY = 86400;
/** 2026-11-21 06:22:07 UTC */
constexpr std::int64_t NOW = 1795242127;

TEST(CertificateExpiry, TimesAreWrittenInUtc)
{
    EXPECT_EQ(UtcText(NOW), "2026-11-21 06:22:07 UTC");
    EXPECT_EQ(UtcText(0), "1970-01-01 00:00:00 UTC");
}

TEST(ExpiryWarnings, ThirtyDaysAreEarlyEnough)
{
    ExpiryWarnings warnings;
    EXPECT_FALSE(warnings.IsDue("x", NOW + 30 * DAY, NOW));
    EXPECT_TRUE(warnings.IsDue("x", NOW + 30 * DAY - 1, NOW));
}

TEST(ExpiryWarnings, WhatHasExpiredIsWarnedOfToo)
{
    ExpiryWarnings warnings;
    EXPECT_TRUE(warnings.IsDue("x", NOW, NOW));
    EXPECT_TRUE(warnings.IsDue("y", NOW - 400 * DAY, NOW));
}

TEST(ExpiryWarnings, WhatIsNotThereOrNotKnownIsNotWarnedOf)
{
    ExpiryWarnings warnings;
    EXPECT_FALSE(warnings.IsDue("x", 0, NOW));
}

TEST(ExpiryWarnings, EachIsWarnedOfOnceADay)
{
    ExpiryWarnings warnings;
    EXPECT_TRUE(warnings.IsDue("x", NOW + 5 * DAY, NOW));
    EXPECT_TRUE(warnings.IsDue("y", NOW + 5 * DAY, NOW));
    EXPECT_FALSE(warnings.IsDue("x", NOW + 5 * DAY, NOW + DAY - 1));
    EXPECT_TRUE(warnings.IsDue("x", NOW + 5 * DAY, NOW + DAY));
    EXPECT_FALSE(warnings.IsDue("x", NOW + 5 * DAY, NOW + DAY + 1));
}

TEST(ExpiryWarnings, AnotherCertificateInItsPlaceIsWarnedOfAtOnce)
{
    ExpiryWarnings warnings;
    EXPECT_TRUE(warnings.IsDue("x", NOW + 5 * DAY, NOW));
    EXPECT_TRUE(warnings.IsDue("x", NOW + 6 * DAY, NOW + 1));
}

} // namespace
} // namespace VtxQel

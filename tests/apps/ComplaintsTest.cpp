#include "apps/Complaints.h"

#include "fakes/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

using testing::ElementsAre;

TEST(Complaints, OneInTenSecondsIsWrittenWithTheNumberOfTheOthers)
{
    const Fakes::LogCapture log(4);
    Complaints::Clock::time_point now{std::chrono::hours(1)};
    Complaints complaints("web", [&now] { return now; });
    complaints.Write("first");
    complaints.Write("second");
    now += Complaints::QUIET_TIME - std::chrono::milliseconds(1);
    complaints.Write("third");
    now += std::chrono::milliseconds(1);
    complaints.Write("fourth");
    now += Complaints::QUIET_TIME;
    complaints.Write("fifth");
    EXPECT_THAT(
        log.Lines(), ElementsAre(
                         "4 qel - application web: first (0 more since the last such line)",
                         "4 qel - application web: fourth (2 more since the last such line)",
                         "4 qel - application web: fifth (0 more since the last such line)"));
}

} // namespace
} // namespace VtxQel

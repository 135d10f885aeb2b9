#include "endpoint/MoveSchedule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <vector>

namespace VtxQel
{
namespace
{

using Clock = MoveSchedule::Clock;
using Milliseconds = std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t AGENTS = 1000;
constexpr seconds WINDOW{180};
const Clock::time_point START = Clock::time_point() + std::chrono::hours(1);

double InSeconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

/** The moments, in seconds after the hint, at which a fleet moves that was hinted at once. */
std::vector<double> Moments(const std::function<std::optional<Clock::duration>(MoveSchedule& agent)>& hint)
{
    std::mt19937_64 seeds(20240229);
    std::vector<double> moments;
    for (std::size_t i = 0; i < AGENTS; ++i)
    {
        MoveSchedule agent(seeds());
        moments.push_back(InSeconds(hint(agent).value()));
    }
    std::sort(moments.begin(), moments.end());
    return moments;
}

/** How far sorted moments are from being uniform between two times. */
struct Uniformity
{
    static constexpr std::size_t BINS = 20;
    /** What chance exceeds once in a thousand times, for 19 degrees of freedom and for 1,000 values. */
    static constexpr double CHI_SQUARE_LIMIT = 43.82;
    static constexpr double KOLMOGOROV_SMIRNOV_LIMIT = 0.0617;

    double chiSquare = 0;
    double kolmogorovSmirnov = 0;
    std::size_t busiestSecond = 0;

    Uniformity(const std::vector<double>& moments, double from, double to)
    {
        std::array<double, BINS> bins{};
        std::vector<std::size_t> second(static_cast<std::size_t>(to) + 1);
        const auto count = static_cast<double>(moments.size());
        for (std::size_t i = 0; i < moments.size(); ++i)
        {
            const double share = (moments[i] - from) / (to - from);
            ++bins[std::min(BINS - 1, static_cast<std::size_t>(share * BINS))];
            ++second[static_cast<std::size_t>(moments[i])];
            const auto rank = static_cast<double>(i);
            kolmogorovSmirnov = std::max({kolmogorovSmirnov, share - rank / count, (rank + 1) / count - share});
        }
        for (const double observed : bins)
        {
            chiSquare += std::pow(observed - count / BINS, 2) / (count / BINS);
        }
        busiestSecond = *std::max_element(second.begin(), second.end());
    }

    bool Holds() const { return chiSquare < CHI_SQUARE_LIMIT && kolmogorovSmirnov < KOLMOGOROV_SMIRNOV_LIMIT; }

    void Print(const char* what) const
    {
        std::printf(
            "%s: chi-square %.1f (limit %.2f), Kolmogorov-Smirnov %.4f (limit %.4f), busiest second %zu agents\n", what,
            chiSquare, CHI_SQUARE_LIMIT, kolmogorovSmirnov, KOLMOGOROV_SMIRNOV_LIMIT, busiestSecond);
    }
};

TEST(MoveSchedule, AFleetHintedAtOnceMovesEvenlyOverTheTimeGiven)
{
    const std::vector<double> moments = Moments([](MoveSchedule& agent) { return agent.OnHint(WINDOW, START); });
    const Uniformity uniformity(moments, 0, 180);
    uniformity.Print("1,000 agents, 180 s");
    EXPECT_GE(moments.front(), 0);
    EXPECT_LE(moments.back(), 180);
    EXPECT_TRUE(uniformity.Holds());
}

TEST(MoveSchedule, AFleetThatHasJustMovedIsSpreadOverWhatIsLeft)
{
    const std::vector<double> moments = Moments(
        [](MoveSchedule& agent)
        {
            agent.OnHint(WINDOW, START);
            agent.OnMove(START);
            return agent.OnHint(WINDOW, START + seconds(10));
        });
    const Uniformity uniformity(moments, 20, 180);
    uniformity.Print("1,000 agents that moved 10 s ago, 180 s");
    EXPECT_GE(moments.front(), 20);
    EXPECT_TRUE(uniformity.Holds());
}

TEST(MoveSchedule, TheYardstickTellsAnUnevenFleet)
{
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> share(0, 1);
    std::vector<double> moments;
    std::generate_n(std::back_inserter(moments), AGENTS, [&] { return 180 * std::pow(share(random), 1.2); });
    std::sort(moments.begin(), moments.end());
    EXPECT_FALSE(Uniformity(moments, 0, 180).Holds());
}

TEST(MoveSchedule, HintsWhileAMoveIsDueChangeNothing)
{
    MoveSchedule agent(1);
    EXPECT_TRUE(agent.OnHint(WINDOW, START));
    EXPECT_FALSE(agent.OnHint(WINDOW, START));
    EXPECT_FALSE(agent.OnHint(seconds(0), START + seconds(1)));
    agent.OnMove(START + seconds(2));
    EXPECT_TRUE(agent.OnHint(WINDOW, START + seconds(2)));
}

TEST(MoveSchedule, AHintWithoutTimeMovesAtOnceButNotSoonAgain)
{
    MoveSchedule agent(1);
    EXPECT_EQ(agent.OnHint(seconds(0), START), Clock::duration::zero());
    agent.OnMove(START);
    EXPECT_EQ(agent.OnHint(seconds(0), START + seconds(12)), seconds(18));
    agent.OnMove(START + seconds(30));
    EXPECT_EQ(agent.OnHint(seconds(0), START + seconds(60)), Clock::duration::zero());
}

TEST(MoveSchedule, TenHintsASecondForTenMinutesMoveEveryThirtySecondsAtMost)
{
    MoveSchedule agent(3);
    std::optional<Clock::time_point> due;
    std::vector<Clock::time_point> moves;
    for (Clock::time_point now = START; now < START + std::chrono::minutes(10); now += Milliseconds(100))
    {
        if (due && *due <= now)
        {
            agent.OnMove(now);
            moves.push_back(now);
            due.reset();
        }
        if (const auto delay = agent.OnHint(seconds(5), now))
        {
            due = now + *delay;
        }
    }
    ASSERT_GE(moves.size(), 2U);
    for (std::size_t i = 1; i < moves.size(); ++i)
    {
        EXPECT_GE(moves[i] - moves[i - 1], MoveSchedule::LEAST_BETWEEN_MOVES);
    }
    std::printf("6,000 hints in 600 s: %zu moves\n", moves.size());
    EXPECT_LE(moves.size(), 20U);
    EXPECT_GE(moves.size(), 19U);
}

} // namespace
} // namespace VtxQel

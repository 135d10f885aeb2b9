#include "broker/AddressRace.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace VtxQel
{

using Tcp = AddressRace::Tcp;

namespace
{

/** What a race between these addresses has come to. */
struct Outcome
{
    bool told = false;
    std::optional<Tcp::endpoint> winner;
    std::vector<AddressRace::Failure> failures;
};

class AddressRaceTest : public testing::Test
{
  protected:
    Tcp::endpoint Refusing()
    {
        const Tcp::acceptor acceptor(m_io, {boost::asio::ip::address_v4::loopback(), 0});
        return acceptor.local_endpoint();
    }

    std::shared_ptr<AddressRace> Start(std::vector<Tcp::endpoint> addresses)
    {
        auto race = std::make_shared<AddressRace>(m_io, std::move(addresses));
        race->Start(
            [this](Tcp::socket&& socket, const std::vector<AddressRace::Failure>& failures)
            {
                EXPECT_FALSE(m_outcome.told);
                m_outcome.told = true;
                m_outcome.failures = failures;
                if (socket.is_open())
                {
                    m_outcome.winner = socket.remote_endpoint();
                }
            });
        return race;
    }

    boost::asio::io_context m_io;
    Tcp::acceptor m_acceptor{m_io, {boost::asio::ip::address_v4::loopback(), 0}};
    const Tcp::endpoint m_answering = m_acceptor.local_endpoint();
    Outcome m_outcome;
};

} // namespace

TEST_F(AddressRaceTest, TheFirstThatAnswersWins)
{
    Start({m_answering, Refusing()});
    m_io.run();
    EXPECT_EQ(m_outcome.winner, m_answering);
    EXPECT_TRUE(m_outcome.failures.empty());
}

TEST_F(AddressRaceTest, OneThatRefusesIsPassedOver)
{
    const Tcp::endpoint refusing = Refusing();
    Start({refusing, m_answering});
    m_io.run();
    EXPECT_EQ(m_outcome.winner, m_answering);
    ASSERT_EQ(m_outcome.failures.size(), 1U);
    EXPECT_EQ(m_outcome.failures[0].address, refusing);
    EXPECT_EQ(m_outcome.failures[0].why, "Connection refused");
}

TEST_F(AddressRaceTest, WithoutAWinnerEveryFailureIsTold)
{
    const Tcp::endpoint first = Refusing();
    const Tcp::endpoint second = Refusing();
    Start({first, second});
    m_io.run();
    EXPECT_TRUE(m_outcome.told);
    EXPECT_FALSE(m_outcome.winner);
    ASSERT_EQ(m_outcome.failures.size(), 2U);
    EXPECT_EQ(m_outcome.failures[0].address, first);
    EXPECT_EQ(m_outcome.failures[1].address, second);
}

TEST_F(AddressRaceTest, WithoutAnAddressThereIsNoWinner)
{
    Start({});
    m_io.run();
    EXPECT_TRUE(m_outcome.told);
    EXPECT_FALSE(m_outcome.winner);
}

TEST_F(AddressRaceTest, CancelledBeforeItBegan)
{
    Start({m_answering})->Cancel();
    m_io.run();
    EXPECT_TRUE(m_outcome.told);
    EXPECT_FALSE(m_outcome.winner);
}

TEST_F(AddressRaceTest, CancelledWhileAnAddressIsTried)
{
    const auto race = Start({m_answering, Refusing()});
    boost::asio::post(m_io, [race] { race->Cancel(); });
    m_io.run();
    EXPECT_TRUE(m_outcome.told);
    EXPECT_FALSE(m_outcome.winner);
    EXPECT_EQ(m_outcome.failures.size(), 1U) << "the second was tried all the same";
}

} // namespace VtxQel

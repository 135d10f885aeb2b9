#include "admin/AdminServer.h"

#include "admin/AdminException.h"
#include "admin/FakeAdminPort.h"

#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace VtxQel
{
namespace
{

namespace asio = boost::asio;
using testing::HasSubstr;
using testing::StartsWith;

class AdminServerTest : public testing::Test
{
  protected:
    AdminServerTest()
    {
        server.ListenOn("127.0.0.1:0");
        server.Start();
    }
    asio::ip::tcp::socket Connect()
    {
        asio::ip::tcp::socket socket(io);
        socket.connect({asio::ip::address_v4::loopback(), server.Port()});
        return socket;
    }
    /** Sends the text and reads until the server closes. */
    std::string Exchange(const std::string& text)
    {
        asio::ip::tcp::socket socket = Connect();
        boost::system::error_code ignored;
        // The server may answer and close before it has read everything.
        asio::write(socket, asio::buffer(text), ignored);
        return ReadAll(socket);
    }
    static std::string ReadAll(asio::ip::tcp::socket& socket)
    {
        std::string answer;
        boost::system::error_code end;
        asio::read(socket, asio::dynamic_buffer(answer), end);
        return answer;
    }

    FakeAdminPort port;
    asio::io_context io;
    AdminServer server{port};
};

TEST_F(AdminServerTest, RequestsOnOneConnectionAreAnsweredInTurn)
{
    const std::string get = "GET /livez HTTP/1.1\r\nHost: localhost\r\n";
    const std::string answer = Exchange(get + "\r\n" + get + "Connection: close\r\n\r\n");
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(answer.find("live\n"), answer.find("HTTP/1.1", 1) - 5);
}

TEST_F(AdminServerTest, HeadIsAnsweredWithoutABody)
{
    const std::string answer = Exchange("HEAD /livez HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    EXPECT_THAT(answer, HasSubstr("Content-Length: 5\r\n"));
    EXPECT_TRUE(answer.ends_with("\r\n\r\n"));
}

TEST_F(AdminServerTest, WhatIsNotHttpIsRefused)
{
    EXPECT_THAT(Exchange("\x16\x03\x01 hello\r\n\r\n"), StartsWith("HTTP/1.1 400"));
}

TEST_F(AdminServerTest, TooLargeHeadersAndBodiesAreRefused)
{
    const std::string header = "GET /livez HTTP/1.1\r\nHost: localhost\r\nX: " + std::string(20000, 'x') + "\r\n\r\n";
    EXPECT_THAT(Exchange(header), StartsWith("HTTP/1.1 431"));
    EXPECT_THAT(
        Exchange("PUT /log-level HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5000\r\n\r\n" + std::string(5000, '4')),
        StartsWith("HTTP/1.1 413"));
}

TEST_F(AdminServerTest, ConnectionsOverTheBoundAreTurnedAwayAndTheOthersServed)
{
    std::vector<asio::ip::tcp::socket> idle;
    idle.reserve(64);
    for (int count = 0; count < 64; ++count)
    {
        idle.push_back(Connect());
    }
    asio::ip::tcp::socket oneMore = Connect();
    EXPECT_THAT(ReadAll(oneMore), StartsWith("HTTP/1.1 503"));
    const std::string get = "GET /livez HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
    asio::write(idle.front(), asio::buffer(get));
    EXPECT_THAT(ReadAll(idle.front()), StartsWith("HTTP/1.1 200"));
}

TEST_F(AdminServerTest, AnAddressInUseIsAClearError)
{
    AdminServer other(port);
    try
    {
        other.ListenOn("127.0.0.1:" + std::to_string(server.Port()));
        FAIL();
    }
    catch (const AdminException& error)
    {
        EXPECT_THAT(error.what(), HasSubstr("in use"));
    }
}

} // namespace
} // namespace VtxQel

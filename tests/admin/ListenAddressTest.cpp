#include "admin/ListenAddress.h"

#include "admin/AdminException.h"

#include <gtest/gtest.h>

namespace VtxQel
{
namespace
{

TEST(ListenAddress, LoopbackAddressesAreTaken)
{
    EXPECT_EQ(LoopbackEndpoint("127.0.0.1:9477").port(), 9477);
    EXPECT_EQ(LoopbackEndpoint("127.1.2.3:0").port(), 0);
    EXPECT_TRUE(LoopbackEndpoint("[::1]:9477").address().is_v6());
}

TEST(ListenAddress, AddressesOfOtherInterfacesAreRefusedWithTheReason)
{
    for (const char* text : {"0.0.0.0:9477", "192.0.2.1:9477", "[::]:9477", "[2001:db8::1]:9477"})
    {
        try
        {
            LoopbackEndpoint(text);
            ADD_FAILURE() << text;
        }
        catch (const AdminException& error)
        {
            EXPECT_NE(std::string(error.what()).find("loopback"), std::string::npos) << error.what();
        }
    }
}

TEST(ListenAddress, WhatIsNoAddressAndPortIsRefused)
{
    for (const char* text :
         {"", "9477", ":9477", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "localhost:9477",
          "127.0.0.1:9477/x", "127.0.0.1:9477?x", "user@127.0.0.1:9477", "::1:9477", "127.0.0.1: 9477"})
    {
        EXPECT_THROW(LoopbackEndpoint(text), AdminException) << text;
    }
}

} // namespace
} // namespace VtxQel

#include "broker/TlsStore.h"

#include "broker/TestCertificates.h"
#include "common/QelException.h"
#include "fakes/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace VtxQel
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class TlsStoreTest : public testing::Test
{
  protected:
    TlsStoreTest()
    {
        certificates.MakeAuthority("authority", 400);
        files = certificates.Issue("authority", "client", "DNS:client", 200);
        files.caFile = certificates.File("authority.pem");
    }

    CertificateExpiry Expiry() const { return state.Get().certificates; }

    TestCertificates certificates;
    TlsFiles files;
    boost::asio::io_context io;
    LinkState state;
    const Fakes::LogCapture log{4};
};

TEST_F(TlsStoreTest, EachReadingSeesTheFilesAsTheyAre)
{
    TlsStore store(io, files, state);
    const auto first = store.Read();
    const std::int64_t before = Expiry().client;
    EXPECT_EQ(before, first->clientNotAfter);
    EXPECT_EQ(Expiry().authority, first->authorityNotAfter);
    certificates.Issue("authority", "client", "DNS:client", 300);
    EXPECT_GT(store.Read()->clientNotAfter, before);
    EXPECT_GT(Expiry().client, before);
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(TlsStoreTest, FilesThatCannotBeUsedLeaveTheOldOnesAndAreToldOnce)
{
    TlsStore store(io, files, state);
    const auto first = store.Read();
    std::ofstream(files.keyFile) << "half a k";
    EXPECT_EQ(store.Read(), first);
    EXPECT_EQ(store.Read(), first);
    EXPECT_THAT(
        log.Lines(),
        ElementsAre(HasSubstr("the TLS files cannot be used, those read before stay in use: TLS: " + files.keyFile)));
    std::filesystem::remove(files.caFile);
    EXPECT_EQ(store.Read(), first);
    EXPECT_EQ(log.Lines().size(), 2U);
    EXPECT_EQ(Expiry().client, first->clientNotAfter);
}

TEST_F(TlsStoreTest, AFaultThatComesBackIsToldAgain)
{
    TlsStore store(io, files, state);
    store.Read();
    for (int i = 0; i < 2; ++i)
    {
        std::filesystem::rename(files.caFile, files.caFile + ".away");
        store.Read();
        std::filesystem::rename(files.caFile + ".away", files.caFile);
        store.Read();
    }
    EXPECT_EQ(log.Lines().size(), 2U);
}

TEST_F(TlsStoreTest, FilesThatNeverCouldBeUsedAreAnError)
{
    files.keyFile = files.caFile;
    TlsStore store(io, files, state);
    EXPECT_THROW(store.Read(), RmqConnectionException);
    EXPECT_THROW(store.Read(), RmqConnectionException);
}

TEST_F(TlsStoreTest, OtherFilesAreTakenAtOnce)
{
    TlsStore store(io, files, state);
    const std::int64_t before = store.Read()->clientNotAfter;
    TlsFiles other = certificates.Issue("authority", "other", "DNS:other", 300);
    other.caFile = files.caFile;
    store.Use(other);
    EXPECT_GT(Expiry().client, before);
    EXPECT_EQ(store.Read()->files, other);
}

TEST_F(TlsStoreTest, WhatExpiresSoonIsWarnedOfOnceForAllConnections)
{
    certificates.MakeAuthority("authority", 20);
    certificates.Issue("authority", "client", "DNS:client", 10);
    TlsStore store(io, files, state);
    store.Read();
    store.Read();
    store.OnBrokerCertificate("amqps://broker.example:5671/", 1000);
    store.OnBrokerCertificate("amqps://broker.example:5671/", 1000);
    EXPECT_EQ(Expiry().broker, 1000);
    EXPECT_THAT(
        log.Lines(), ElementsAre(
                         HasSubstr("the client certificate " + files.certificateFile + " expires in "),
                         HasSubstr("a certificate in the CA file " + files.caFile + " expires in "),
                         HasSubstr("the certificate of the broker amqps://broker.example:5671/ expired on 1970")));
}

} // namespace
} // namespace VtxQel

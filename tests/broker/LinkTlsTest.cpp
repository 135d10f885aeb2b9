#include "broker/LinkHarness.h"
#include "broker/TestCertificates.h"
#include "broker/TlsFront.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace VtxQel
{

using testing::HasSubstr;

/** Links that reach the node through TLS with certificates made for the test. */
class LinkTls : public testing::Test
{
  protected:
    static LinkSettings Settings(const std::string& host, const TlsFront& front, const TlsFiles& files)
    {
        LinkSettings settings = NodeSettings();
        settings.urls = {"amqps://guest:guest@" + host + ":" + std::to_string(front.Port())};
        settings.tls = files;
        settings.firstConnectDeadline = std::chrono::seconds(3);
        return settings;
    }

    static std::string WhyNot(const std::string& host, const TlsFront& front, const TlsFiles& files)
    {
        RecordingListener listener;
        BrokerLink link(Settings(host, front, files), listener);
        link.Start();
        return listener.WaitForGaveUp().value_or("never gave up");
    }

    TestCertificates m_certificates;
    const std::string m_authority = m_certificates.MakeAuthority("authority");
};

TEST_F(LinkTls, AVerifiedBrokerIsUsedByNameAndByAddress)
{
    const TlsFront front(m_certificates.Issue("authority", "server", "DNS:localhost,IP:127.0.0.1"));
    for (const char* host : {"localhost", "127.0.0.1"})
    {
        DesiredTopology desired;
        desired.ownQueues = {Queue(Unique("tls"), 10)};
        TestLink link(desired, Settings(host, front, {m_authority, "", ""}));
        link.Send(desired.ownQueues[0].name, std::string(500000, 'x'));
        ASSERT_TRUE(link.Listener().WaitForDeliveries(1));
        EXPECT_EQ(link.Listener().Delivery(0).body.size(), 500000U);
    }
}

TEST_F(LinkTls, ABrokerOfAnotherNameIsNotAccepted)
{
    const TlsFront front(m_certificates.Issue("authority", "server", "DNS:elsewhere.example,IP:127.0.0.9"));
    EXPECT_THAT(
        WhyNot("localhost", front, {m_authority, "", ""}),
        HasSubstr("is for DNS:elsewhere.example, IP Address:127.0.0.9 and not for localhost: write one of these"));
    EXPECT_THAT(
        WhyNot("127.0.0.1", front, {m_authority, "", ""}),
        HasSubstr("is for DNS:elsewhere.example, IP Address:127.0.0.9 and not for 127.0.0.1: write one of these"));
}

TEST_F(LinkTls, ACertificateOfAnotherAuthorityIsNotAccepted)
{
    const std::string other = m_certificates.MakeAuthority("other");
    const TlsFront front(m_certificates.Issue("authority", "server", "DNS:localhost"));
    EXPECT_THAT(
        WhyNot("localhost", front, {other, "", ""}),
        HasSubstr("comes from CN=authority, which is not in the CA file " + other));
}

TEST_F(LinkTls, AnExpiredCertificateIsNotAccepted)
{
    const TlsFront front(m_certificates.Issue("authority", "server", "DNS:localhost", -1));
    EXPECT_THAT(
        WhyNot("localhost", front, {m_authority, "", ""}),
        testing::ContainsRegex(
            "TLS: the certificate of localhost:[0-9]+ expired on 20[0-9-]+ [0-9:]+ UTC: have it renewed"));
}

TEST_F(LinkTls, ProtocolsBeforeTls12AreNotSpoken)
{
    const TlsFront front(m_certificates.Issue("authority", "server", "DNS:localhost"), "", true);
    EXPECT_THAT(WhyNot("localhost", front, {m_authority, "", ""}), HasSubstr("does not speak TLS 1.2 or newer"));
}

TEST_F(LinkTls, OurCertificateIsShownAndUsedToLogIn)
{
    const TlsFront front(m_certificates.Issue("authority", "server", "DNS:localhost"), m_authority);
    TlsFiles files = m_certificates.Issue("authority", "client", "DNS:client");
    files.caFile = m_authority;
    // The node behind the front has no certificates and so offers no such login: we got as far as asking for it.
    EXPECT_THAT(WhyNot("localhost", front, files), HasSubstr("the broker does not offer the login mechanism EXTERNAL"));
}

TEST_F(LinkTls, ReloadedFilesCountForTheNextConnection)
{
    const TlsFront front(m_certificates.Issue("authority", "server", "DNS:localhost"));
    const std::string empty = m_certificates.MakeAuthority("empty");
    const std::string used = empty + ".used";
    std::filesystem::copy_file(m_authority, used);
    TestLink link({}, Settings("localhost", front, {used, "", ""}));
    std::filesystem::copy_file(empty, used, std::filesystem::copy_options::overwrite_existing);
    link->ReloadTls({used, "", ""});
    link->Reconnect("a test wants it");
    EXPECT_TRUE(Eventually([&] { return link->Status().lastError.find("not in the CA file") != std::string::npos; }))
        << link->Status().lastError;
    std::filesystem::copy_file(m_authority, used, std::filesystem::copy_options::overwrite_existing);
    link->ReloadTls({used, "", ""});
    EXPECT_TRUE(link.Listener().WaitForRestored(2));
}

} // namespace VtxQel

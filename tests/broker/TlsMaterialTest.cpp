#include "broker/TlsMaterial.h"

#include "broker/TestCertificates.h"
#include "common/QelException.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace VtxQel
{
namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::int64_t InDays(int days)
{
    const auto now = std::chrono::system_clock::now() + std::chrono::hours(24) * days;
    return std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
}

class TlsMaterialTest : public testing::Test
{
  protected:
    TlsMaterialTest() { good.caFile = authority; }

    /** The one fault, of the file that was expected. */
    static std::string FaultOf(const TlsFiles& files, std::string TlsFiles::*expected)
    {
        const std::vector<TlsFault> faults = FindTlsFaults(files);
        if (faults.size() != 1 || faults.front().file != expected)
        {
            return std::to_string(faults.size()) + " faults, or of another file";
        }
        return faults.front().why;
    }

    std::string Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(certificates.File(name)) << text;
        return certificates.File(name);
    }

    TestCertificates certificates;
    const std::string authority = certificates.MakeAuthority("authority", 100);
    TlsFiles good = certificates.Issue("authority", "client", "DNS:client", 50);
};

TEST_F(TlsMaterialTest, SoundFilesHaveNoFaultsAndTellTheirExpiry)
{
    EXPECT_THAT(FindTlsFaults(good), IsEmpty());
    const auto material = ReadTlsMaterial(good);
    EXPECT_NE(material->context, nullptr);
    EXPECT_NEAR(static_cast<double>(material->clientNotAfter), static_cast<double>(InDays(50)), 600);
    EXPECT_NEAR(static_cast<double>(material->authorityNotAfter), static_cast<double>(InDays(100)), 600);
}

TEST_F(TlsMaterialTest, WithoutFilesTheSystemsAuthoritiesAreUsedAndNoExpiryIsKnown)
{
    const auto material = ReadTlsMaterial({});
    EXPECT_EQ(material->clientNotAfter, 0);
    EXPECT_EQ(material->authorityNotAfter, 0);
}

TEST_F(TlsMaterialTest, OfSeveralAuthoritiesTheFirstToExpireCounts)
{
    certificates.MakeAuthority("sooner", 7);
    certificates.MakeAuthority("later", 300);
    std::string all;
    for (const char* name : {"authority.pem", "sooner.pem", "later.pem"})
    {
        std::ifstream file(certificates.File(name));
        all.append(std::istreambuf_iterator<char>(file), {});
    }
    good.caFile = Write("all.pem", "some words before\n" + all);
    EXPECT_NEAR(static_cast<double>(ReadTlsMaterial(good)->authorityNotAfter), static_cast<double>(InDays(7)), 600);
}

TEST_F(TlsMaterialTest, AFileThatIsMissingIsSaidSo)
{
    for (auto file : {&TlsFiles::caFile, &TlsFiles::certificateFile, &TlsFiles::keyFile})
    {
        TlsFiles files = good;
        files.*file = certificates.File("absent.pem");
        EXPECT_EQ(FaultOf(files, file), "cannot be read: No such file or directory: check the name");
    }
}

TEST_F(TlsMaterialTest, WhatIsNoFileIsNotWaitedFor)
{
    good.caFile = std::filesystem::path(authority).parent_path();
    EXPECT_THAT(FaultOf(good, &TlsFiles::caFile), StartsWith("cannot be read: it has to be a file"));
    good.caFile = certificates.File("pipe");
    ASSERT_EQ(::mkfifo(good.caFile.c_str(), 0600), 0);
    EXPECT_THAT(FaultOf(good, &TlsFiles::caFile), StartsWith("cannot be read: it has to be a file"));
}

TEST_F(TlsMaterialTest, AFileWithoutCertificateIsSaidSo)
{
    for (auto file : {&TlsFiles::caFile, &TlsFiles::certificateFile})
    {
        for (const std::string& text : {std::string(), std::string("nonsense"), std::string("\0\xff", 2)})
        {
            TlsFiles files = good;
            files.*file = Write("wrong.pem", text);
            EXPECT_EQ(
                FaultOf(files, file), "holds no sound certificate: it has to be PEM, -----BEGIN CERTIFICATE-----");
        }
    }
}

TEST_F(TlsMaterialTest, ACertificateThatIsCutOffIsSaidSo)
{
    std::ifstream file(authority);
    const std::string whole(std::istreambuf_iterator<char>(file), {});
    good.caFile = Write("cut.pem", whole + whole.substr(0, whole.size() / 2));
    EXPECT_THAT(FaultOf(good, &TlsFiles::caFile), HasSubstr("holds no sound certificate ("));
}

TEST_F(TlsMaterialTest, AKeyThatIsNoneIsSaidSo)
{
    good.keyFile = good.certificateFile;
    EXPECT_THAT(FaultOf(good, &TlsFiles::keyFile), StartsWith("holds no private key: it has to be PEM"));
}

TEST_F(TlsMaterialTest, AKeyWithAPassphraseIsSaidSoAndNobodyIsAsked)
{
    certificates.OpenSsl("pkey -in client-key.pem -aes256 -passout pass:hidden -out locked-key.pem");
    good.keyFile = certificates.File("locked-key.pem");
    EXPECT_THAT(FaultOf(good, &TlsFiles::keyFile), StartsWith("is protected by a passphrase: write it without one"));
}

TEST_F(TlsMaterialTest, TheKeyOfAnotherCertificateIsSaidSoWithItsName)
{
    const TlsFiles other = certificates.Issue("authority", "other", "DNS:other");
    certificates.OpenSsl("genrsa -out rsa-key.pem 2048");
    for (const std::string& key : {other.keyFile, certificates.File("rsa-key.pem")})
    {
        good.keyFile = key;
        EXPECT_THAT(
            FaultOf(good, &TlsFiles::keyFile),
            AllOf(StartsWith("does not belong to the certificate " + good.certificateFile), HasSubstr("as a pair")));
    }
}

TEST_F(TlsMaterialTest, EveryFaultIsInTheError)
{
    good.caFile = certificates.File("absent.pem");
    good.keyFile = good.certificateFile;
    EXPECT_EQ(FindTlsFaults(good).size(), 2U);
    try
    {
        ReadTlsMaterial(good);
        FAIL() << "no error";
    }
    catch (const RmqConnectionException& error)
    {
        EXPECT_THAT(
            error.what(), AllOf(
                              StartsWith("TLS: " + good.caFile + " cannot be read"),
                              HasSubstr("; " + good.keyFile + " holds no private key")));
    }
}

} // namespace
} // namespace VtxQel

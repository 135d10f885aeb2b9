#include "broker/TestCertificates.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace VtxQel
{

TestCertificates::TestCertificates()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "qel-certificates-XXXXXX").string();
    m_folder = ::mkdtemp(pattern.data());
}

TestCertificates::~TestCertificates()
{
    std::filesystem::remove_all(m_folder);
}

void TestCertificates::OpenSsl(const std::string& arguments) const
{
    const std::string command = "cd " + m_folder.string() + " && openssl " + arguments + " >>log 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

std::string TestCertificates::MakeAuthority(const std::string& name, int days)
{
    OpenSsl(
        "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days " + std::to_string(days) +
        " -subj /CN=" + name + " -keyout " + name + "-key.pem -out " + name + ".pem");
    return File(name + ".pem");
}

TlsFiles TestCertificates::Issue(
    const std::string& authority, const std::string& name, const std::string& san, int days)
{
    OpenSsl(
        "req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" + name +
        " -addext subjectAltName=" + san + " -keyout " + name + "-key.pem -out " + name + ".csr");
    OpenSsl(
        "x509 -req -copy_extensions copy -in " + name + ".csr -CA " + authority + ".pem -CAkey " + authority +
        "-key.pem -CAcreateserial -days " + std::to_string(days) + " -out " + name + ".pem");
    return {"", File(name + ".pem"), File(name + "-key.pem")};
}

} // namespace VtxQel

// Fields of certificates, matching of hosts, and reasons for distrust.
#include "Process.h"
#include "TemporaryDirectory.h"

#include <solvane/session/Certificate.h>

#include <solvane/ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <memory>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace SolvaneTest {

/// The certificates of testbed/mkcerts, made once.
class CertificateOf : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_folder = std::make_unique<TemporaryDirectory>();
        ProgramOutcome const made = run({SOLVANE_MKCERTS, s_folder->path()});
        ASSERT_EQ(made.exitStatus, 0) << made.output;
    }
    static void TearDownTestSuite() { s_folder.reset(); }

    static std::string file(std::string const& name) { return s_folder->path() / (name + ".pem"); }

    static Certificate read(std::string const& name)
    {
        ProgramOutcome const made = run({"openssl", "x509", "-in", file(name), "-outform", "DER",
                                         "-out", s_folder->path() / "read.der"});
        EXPECT_EQ(made.exitStatus, 0) << made.output;
        std::ifstream stream(s_folder->path() / "read.der", std::ios::binary);
        return Certificate(std::string(std::istreambuf_iterator<char>(stream), {}));
    }

    static std::unique_ptr<TemporaryDirectory> s_folder;
};

std::unique_ptr<TemporaryDirectory> CertificateOf::s_folder;

TEST_F(CertificateOf, AServerTellsItsNames)
{
    Certificate const certificate = read("good");

    EXPECT_EQ(certificate.subject(), "CN=localhost");
    EXPECT_EQ(certificate.issuer(), "CN=Throwaway test authority");
    EXPECT_THAT(certificate.names(), Contains("localhost"));
    EXPECT_THAT(certificate.names(), Contains("127.0.0.1"));
    EXPECT_THAT(certificate.names(), Contains("::1"));
}

TEST_F(CertificateOf, AServerTellsItsTime)
{
    Certificate const certificate = read("expired");

    EXPECT_EQ(certificate.notBefore(), 1577836800);
    EXPECT_EQ(certificate.notAfter(), 1609459200);
}

TEST_F(CertificateOf, InvalidBytesIsRefused)
{
    EXPECT_THROW(Certificate("no certificate"), LDAPException);
    EXPECT_THROW(Certificate(std::string()), LDAPException);
}

TEST_F(CertificateOf, AServerIsForEachOfItsNames)
{
    Certificate const certificate = read("good");

    for (char const* const host :
         {"localhost", "LocalHost", "localhost.", "127.0.0.1", "::1", "0:0:0:0:0:0:0:1"}) {
        EXPECT_TRUE(certificate.isFor(host)) << host;
    }
    for (char const* const host : {"", "local", "localhost.example.test", "127.0.0.2", "::2",
                                   "::ffff:127.0.0.1", "localhost..", "*"}) {
        EXPECT_FALSE(certificate.isFor(host)) << host;
    }
    EXPECT_FALSE(certificate.isFor(std::string("localhost\0.example.test", 23)));
}

TEST_F(CertificateOf, AllHostsOfADomainIsForOneLabelOnly)
{
    Certificate const certificate = read("wildcard");

    for (char const* const host : {"a.example.test", "LDAP.Example.Test"}) {
        EXPECT_TRUE(certificate.isFor(host)) << host;
    }
    // "sub*" is a wildcard within a label, which RFC 6125 leaves to the implementation.
    for (char const* const host :
         {"example.test", "a.b.example.test", ".example.test", "sub.b.example.test", "wildcard"}) {
        EXPECT_FALSE(certificate.isFor(host)) << host;
    }
}

TEST_F(CertificateOf, AnAddressIsNotForItsCommonName)
{
    Certificate const certificate = read("address");

    EXPECT_TRUE(certificate.isFor("127.0.0.1"));
    EXPECT_FALSE(certificate.isFor("localhost"));
}

TEST_F(CertificateOf, AHostWithoutAlternativeNamesIsForItsCommonName)
{
    Certificate const certificate = read("common");

    EXPECT_THAT(certificate.names(), IsEmpty());
    EXPECT_TRUE(certificate.isFor("localhost"));
    EXPECT_FALSE(certificate.isFor("127.0.0.1"));
}

TEST_F(CertificateOf, AServerIsTrustedWithItsAuthority)
{
    EXPECT_EQ(read("good").distrust(file("ca")), "");
}

TEST_F(CertificateOf, AServerIsDistrustedForEachReason)
{
    std::map<std::string, std::string> const expected = {
        {"expired", "expired on 2021-01-01"},
        {"future", "not valid before 2999-01-01"},
        {"bad", "self-signed"},
    };
    for (auto const& [name, reason] : expected) {
        EXPECT_EQ(read(name).distrust(file("ca")), reason);
    }
}

TEST_F(CertificateOf, AServerIsDistrustedWithoutItsAuthority)
{
    EXPECT_EQ(read("good").distrust(file("bad")),
              "signed by an unknown authority: CN=Throwaway test authority");
}

TEST_F(CertificateOf, AuthoritiesHasAFileThatCanBeUsed)
{
    std::string const empty = s_folder->path() / "empty.pem";
    std::ofstream(empty).close();

    EXPECT_EQ(faultOfAuthorities(file("ca")), "");
    EXPECT_THAT(faultOfAuthorities("/nonexistent"), StartsWith("cannot be read: No such file"));
    EXPECT_THAT(faultOfAuthorities(empty), StartsWith("contains no usable certificates"));
    EXPECT_THAT(faultOfAuthorities(s_folder->path()), HasSubstr("contains no usable certificates"));
    EXPECT_THAT(read("good").distrust(empty), StartsWith("contains no usable certificates"));
}

TEST(AuthoritiesOf, APolicyAreItsOwnFile)
{
    TlsPolicy tls;
    tls.caFile = "/some/ca.pem";

    EXPECT_EQ(tls.authorities(), "/some/ca.pem");
}

TEST(AuthoritiesOf, APolicyWithAFolderAloneAreThatFolder)
{
    TlsPolicy tls;
    tls.caFolder = "/some/folder";

    EXPECT_EQ(tls.authorities(), "/some/folder");
    tls.caFile = "/some/ca.pem";
    EXPECT_EQ(tls.authorities(), "/some/ca.pem");
}

} // namespace SolvaneTest

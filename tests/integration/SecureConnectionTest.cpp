// Connections over TLS. The library encrypts and takes any certificate.
#include "Directory.h"
#include "Process.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include <ldap.h>

using namespace Solvane;
using testing::Each;
using testing::ElementsAre;

namespace SolvaneTest {

class SecureConnection : public SuiteWithSlapd<SecureConnection> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }
};

TEST_F(SecureConnection, CarriesALookup)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));

    LDAPResult const result =
        answerTo(connection, searchFor(people, "(mail=user0000001@corp.test)"));

    EXPECT_THAT(namesIn(result), ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
}

TEST_F(SecureConnection, CarriesAnAsynchronousBind)
{
    LDAPConnection connection(secureServer(slapd().tlsPort()), false);
    connection.bind(readerDn, readerPassword, LDAPConnection::Asynchronous);

    bool const isDone = connection.bindWait(10);

    EXPECT_TRUE(isDone);
    EXPECT_EQ(connection.impl()->m_bindResult.resultCode(), 0);
}

TEST_F(SecureConnection, CarriesAValueOfOneMegabyte)
{
    LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));

    LDAPResult const result = answerTo(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));

    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(testing::SizeIs(1048576)));
}

TEST_F(SecureConnection, MayBeginWithoutTls)
{
    LDAPConnection connection = boundTo(plainServer(slapd().port()));
    auto* const session = static_cast<LDAP*>(connection.context());
    int const policy = LDAP_OPT_X_TLS_ALLOW;
    int const forServer = 0;
    ldap_set_option(session, LDAP_OPT_X_TLS_REQUIRE_CERT, &policy);
    ldap_set_option(session, LDAP_OPT_X_TLS_NEWCTX, &forServer);

    int const rc = ldap_start_tls_s(session, nullptr, nullptr);
    LDAPResult const result = answerTo(connection, lookupOf("uid=bigphoto,ou=big,dc=corp,dc=test"));

    EXPECT_EQ(rc, LDAP_SUCCESS);
    EXPECT_EQ(ldap_tls_inplace(session), 1);
    EXPECT_THAT(valuesIn(result, "jpegPhoto"), ElementsAre(testing::SizeIs(1048576)));
}

TEST_F(SecureConnection, IsMadeInSeveralThreadsAtOnce)
{
    auto const lookup = [] {
        LDAPConnection connection = boundTo(secureServer(slapd().tlsPort()));
        return namesIn(answerTo(connection, searchFor(people, "(uid=user0000001)"))).size();
    };

    std::vector<std::future<std::size_t>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.push_back(std::async(std::launch::async, lookup));
    }
    std::vector<std::size_t> found;
    for (auto& thread : threads) {
        found.push_back(thread.get());
    }

    EXPECT_THAT(found, Each(1U));
}

/// The policy is the process's, and OpenLDAP copies it early: the first connection is the one that
/// could miss it.
class FirstSecureConnection : public testing::TestWithParam<char const*> {};

TEST_P(FirstSecureConnection, OfAProcessTakesAnyCertificate)
{
    if (!Slapd::isInstalled()) {
        Slapd::reportMissing();
        return;
    }
    Slapd const slapd({"--users", "0", "--cert", GetParam()});

    ProgramOutcome const outcome =
        run({SOLVANE_FIRST_SECURE_BIND, std::to_string(slapd.tlsPort())});

    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(Certificate, FirstSecureConnection,
                         testing::Values("good", "bad", "expired"),
                         [](auto const& certificate) { return std::string(certificate.param); });

} // namespace SolvaneTest

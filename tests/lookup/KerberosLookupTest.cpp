// Lookups by Kerberos: with a keytab, in forked workers, and after the ticket was missing.
#include "Eventually.h"
#include "Kdc.h"
#include "Lookups.h"
#include "Process.h"
#include "ProcessMemory.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <memory>

using namespace Solvane;
using Lookup::Outcome;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

constexpr int users = 30;

} // namespace

class LookupByKerberos : public testing::TestWithParam<WayIn> {
protected:
    static void SetUpTestSuite()
    {
        if (Slapd::isInstalled() && Kdc::isInstalled()) {
            s_kdc = std::make_unique<Kdc>();
            s_slapd = std::make_unique<Slapd>(std::vector<std::string>{
                "--users", std::to_string(users), "--kerberos", s_kdc->folder()});
        }
    }
    static void TearDownTestSuite()
    {
        s_slapd.reset();
        s_kdc.reset();
    }
    void SetUp() override
    {
        if (!s_slapd) {
            Kdc::reportMissing();
            return;
        }
        kdc().useKeytab(kdc().file("reader.keytab"));
    }
    static Kdc& kdc() { return *s_kdc; }

    static LDAPLookup::Settings settings()
    {
        LDAPLookup::Settings settings = settingsFor(*s_slapd, GetParam());
        settings.mechanism = Lookup::Mechanism::gssapi;
        settings.bindDn.clear();
        settings.password.clear();
        settings.servers.front().host = "localhost"; // for which it has a principal
        return settings;
    }
    static std::string wrongWith(LDAPLookup& lookup, int user)
    {
        LDAPLookup::Answer const answer = lookup.find(addressOf(user));
        bool const isRight = answer.outcome == Outcome::Found && answer.entries.size() == 1 &&
                             answer.identity == Lookup::Identity::Confirmed;
        return isRight ? std::string() : testing::PrintToString(answer.outcome) + answer.text;
    }

private:
    ToleratedLeak m_leak; // over TLS
    static std::unique_ptr<Kdc> s_kdc;
    static std::unique_ptr<Slapd> s_slapd;
};

std::unique_ptr<Kdc> LookupByKerberos::s_kdc;
std::unique_ptr<Slapd> LookupByKerberos::s_slapd;

TEST_P(LookupByKerberos, FindsInWorkersForkedAfterAFind)
{
    constexpr int workers = 4;
    LDAPLookup lookup(settings());
    ASSERT_EQ(wrongWith(lookup, 1), "");

    for (int round = 0; round < rounds / 10; ++round) {
        Gate gate;
        std::list<ForkedProcess> children;
        for (int i = 0; i < workers; ++i) {
            children.emplace_back([&, i] {
                gate.pass();
                return wrongWith(lookup, i + 2);
            });
        }
        gate.open();
        EXPECT_EQ(wrongWith(lookup, workers + 2), "");
        for (ForkedProcess& child : children) {
            EXPECT_EQ(child.complaint(), "");
        }
    }
}

TEST_P(LookupByKerberos, FindsManyAtOnce)
{
    LDAPLookup lookup(settings());
    std::vector<std::string> keys;
    for (int i = 1; i <= users; ++i) {
        keys.push_back(addressOf(i));
    }

    for (Answered const& answered : answersTo(lookup, keys)) {
        EXPECT_EQ(answered.answer.outcome, Outcome::Found) << answered.answer.text;
    }
}

TEST_P(LookupByKerberos, IsDeferredWithoutATicketAndFindsOnceThereIsOne)
{
    Kdc::useCache(kdc().file("none"));
    LDAPLookup::Settings impatient = settings();
    impatient.backOff = impatient.longestBackOff = std::chrono::milliseconds(1);
    LDAPLookup lookup(impatient);

    LDAPLookup::Answer const answer = lookup.find(addressOf(1));

    EXPECT_EQ(answer.outcome, Outcome::Misconfigured);
    EXPECT_THAT(answer.text, HasSubstr("No Kerberos credentials available"));
    kdc().useTicket("reader");
    EXPECT_TRUE(eventually([&] { return wrongWith(lookup, 1).empty(); }));
}

INSTANTIATE_TEST_SUITE_P(Ways, LookupByKerberos,
                         testing::Values(WayIn::plain, WayIn::ldaps, WayIn::startTls));

} // namespace SolvaneTest

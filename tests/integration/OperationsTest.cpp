// Delete, compare, rename, modify, the binary add and extended operations, on a real directory and with
// peers that do not answer as they should.
#include "Directory.h"
#include "Faults.h"
#include "LdapMessages.h"
#include "ProcessMemory.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

using namespace Solvane;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace SolvaneTest {

namespace {

constexpr char annasDn[] = "uid=user0000001,ou=people,dc=corp,dc=test";
constexpr char elsewhere[] = "cn=elsewhere,ou=referrals,dc=corp,dc=test";

std::string newDn(std::string const& name) { return "cn=" + name + ",ou=new,dc=corp,dc=test"; }

/// Bytes that pass for a JPEG picture, with zero bytes.
std::string photo() { return "\xff\xd8\xff\xe0\0\x10JFIF\0\x01more\0\0\xff\xd9"s; }

/// Sends the request and waits for the server's verdict.
int verdictOn(LDAPOperation& request)
{
    request.send();
    return request.wait(10) ? -1 : request.result().resultCode();
}

} // namespace

class OperationsOnADirectory : public SuiteWithSlapd<OperationsOnADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "5", "--retcode"}; }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<OperationsOnADirectory>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
        }
    }

    /// Adds a person, and returns her DN.
    std::string person(std::string const& name)
    {
        std::string const dn = newDn(name);
        LDAPBinaryAdd add(connection, dn);
        add.attributes({attributeOf("objectClass", "inetOrgPerson"), attributeOf("cn", name),
                        attributeOf("sn", name)});
        EXPECT_EQ(verdictOn(add), 0);
        return dn;
    }
    std::vector<std::string> stored(std::string const& dn, std::string const& type)
    {
        return valuesIn(answerTo(connection, lookupOf(dn)), type);
    }
    bool exists(std::string const& dn)
    {
        return !namesIn(answerTo(connection, lookupOf(dn))).empty();
    }

    LDAPConnection connection;
};

using ADeleteOnADirectory = OperationsOnADirectory;
using ACompareOnADirectory = OperationsOnADirectory;
using ARenameOnADirectory = OperationsOnADirectory;
using AModifyOnADirectory = OperationsOnADirectory;
using ABinaryAddToADirectory = OperationsOnADirectory;
using AnExtendedOperationOnADirectory = OperationsOnADirectory;

TEST_F(ADeleteOnADirectory, RemovesTheEntry)
{
    std::string const dn = person("deleted");
    LDAPDelete request(connection, dn);

    EXPECT_EQ(verdictOn(request), 0);
    EXPECT_FALSE(exists(dn));
    EXPECT_EQ(verdictOn(request), 32);
    EXPECT_EQ(request.result().matchedDN(), "ou=new,dc=corp,dc=test");
}

TEST_F(ADeleteOnADirectory, IsRefusedWithoutRightsAndForAnEntryWithOthersBelow)
{
    LDAPConnection admin(plainServer(slapd().port()), false);
    admin.bind("cn=admin,dc=corp,dc=test", "secret", LDAPConnection::Synchronous);
    LDAPDelete forbidden(connection, annasDn);
    LDAPDelete parent(admin, "ou=people,dc=corp,dc=test");

    EXPECT_EQ(verdictOn(forbidden), 50);
    EXPECT_EQ(verdictOn(parent), 66);
}

TEST_F(ADeleteOnADirectory, WithAnUnknownCriticalControlIsRefused)
{
    LDAPDelete request(connection, person("kept"));
    request.controls().push_back(LDAPOperation::Control("1.3.6.1.4.1.4203.666.9.9", true));

    EXPECT_EQ(verdictOn(request), 12);

    request.controls() = {LDAPOperation::Control("1.3.6.1.4.1.4203.666.9.9", false, "ignored\0"s)};
    EXPECT_EQ(verdictOn(request), 0);
}

TEST_F(ACompareOnADirectory, SaysWhetherTheEntryHasTheValue)
{
    auto const outcomeOf = [this](std::string const& type, std::string const& value) {
        LDAPCompare request(connection, annasDn, type, value);
        int const code = verdictOn(request);
        return std::make_pair(request.outcome(), code);
    };

    EXPECT_EQ(outcomeOf("uid", "USER0000001"), std::make_pair(LDAPCompare::CompareTrue, 6));
    EXPECT_EQ(outcomeOf("uid", "other"), std::make_pair(LDAPCompare::CompareFalse, 5));
    EXPECT_EQ(outcomeOf("title", "x"), std::make_pair(LDAPCompare::CompareOther, 16));
    EXPECT_EQ(outcomeOf("nosuch", "x"), std::make_pair(LDAPCompare::CompareOther, 17));
}

TEST_F(ACompareOnADirectory, WithAReferralIsReferredUnlessAControlManagesIt)
{
    LDAPCompare request(connection, elsewhere, "cn", "elsewhere");

    auto const thrown = thrownBy([&] { verdictOn(request); });
    EXPECT_THAT(thrown, IsFault("Result.cpp", 624, 4, 5));
    EXPECT_EQ(request.result().resultCode(), 10);
    EXPECT_EQ(request.result().referrals().size(), 1U);
    EXPECT_EQ(request.outcome(), LDAPCompare::CompareOther);

    request.controls().push_back(
        LDAPOperation::Control("2.16.840.1.113730.3.4.2", true)); // ManageDsaIT
    EXPECT_EQ(verdictOn(request), 6);
    EXPECT_EQ(request.outcome(), LDAPCompare::CompareTrue);
}

TEST_F(ARenameOnADirectory, KeepsOrDeletesTheOldName)
{
    std::string const dn = person("old");
    LDAPRename keeping(connection, dn, "cn=middle", LDAPRename::KeepOldRdn);
    LDAPRename deleting(connection, newDn("middle"), "cn=last", LDAPRename::DeleteOldRdn);

    EXPECT_EQ(verdictOn(keeping), 0);
    EXPECT_THAT(stored(newDn("middle"), "cn"), UnorderedElementsAre("old", "middle"));
    EXPECT_EQ(verdictOn(deleting), 0);
    EXPECT_THAT(stored(newDn("last"), "cn"), UnorderedElementsAre("old", "last"));
    EXPECT_FALSE(exists(dn));
}

TEST_F(ARenameOnADirectory, MovesTheEntryBelowAnother)
{
    LDAPBinaryAdd container(connection, "ou=moved,ou=new,dc=corp,dc=test");
    container.attributes(
        {attributeOf("objectClass", "organizationalUnit"), attributeOf("ou", "moved")});
    ASSERT_EQ(verdictOn(container), 0);
    LDAPRename request(connection, person("moving"), "cn=moving", LDAPRename::DeleteOldRdn,
                       "ou=moved,ou=new,dc=corp,dc=test");

    EXPECT_EQ(verdictOn(request), 0);
    EXPECT_TRUE(exists("cn=moving,ou=moved,ou=new,dc=corp,dc=test"));
}

TEST_F(ARenameOnADirectory, IsRefusedForANameThatExists)
{
    person("taken");
    LDAPRename request(connection, person("wanting"), "cn=taken", LDAPRename::DeleteOldRdn);

    EXPECT_EQ(verdictOn(request), 68);
}

TEST_F(AModifyOnADirectory, AddsRemovesAndReplacesInOneRequest)
{
    std::string const dn = person("modified");
    LDAPModify first(connection, dn);
    first.add("title", {"one", "two"});
    first.add("jpegPhoto", {photo()});
    first.add("description", {"gone"});
    LDAPModify second(connection, dn);
    second.remove("title", {"one"});
    second.remove("description", {});
    second.replace("sn", {"new"});
    second.replace("mail", {});

    EXPECT_EQ(verdictOn(first), 0);
    EXPECT_EQ(verdictOn(second), 0);
    EXPECT_THAT(stored(dn, "title"), ElementsAre("two"));
    EXPECT_THAT(stored(dn, "jpegPhoto"), ElementsAre(photo()));
    EXPECT_THAT(stored(dn, "description"), IsEmpty());
    EXPECT_THAT(stored(dn, "sn"), ElementsAre("new"));
}

TEST_F(AModifyOnADirectory, IsDoneWholeOrNotAtAll)
{
    std::string const dn = person("whole");
    LDAPModify request(connection, dn);
    request.add("title", {"kept out"});
    request.remove("mail", {"nobody@corp.test"});

    EXPECT_EQ(verdictOn(request), 16);
    EXPECT_THAT(stored(dn, "title"), IsEmpty());
}

TEST_F(AModifyOnADirectory, IncrementsNumbers)
{
    std::string const dn = newDn("counter");
    LDAPBinaryAdd add(connection, dn);
    add.attributes({attributeOf("objectClass", "pilotPerson"), attributeOf("cn", "counter"),
                    attributeOf("sn", "counter"), attributeOf("mailPreferenceOption", "40")});
    ASSERT_EQ(verdictOn(add), 0);
    LDAPModify request(connection, dn);
    request.increment("mailPreferenceOption", 5);
    request.increment("mailPreferenceOption", -3);

    EXPECT_EQ(verdictOn(request), 0);
    EXPECT_THAT(stored(dn, "mailPreferenceOption"), ElementsAre("42"));
}

TEST_F(ABinaryAddToADirectory, StoresValuesWithZeroBytes)
{
    std::string const dn = newDn("binary");
    LDAPBinaryAdd request(connection, dn);
    request.attributes({attributeOf("objectClass", "inetOrgPerson"), attributeOf("cn", "binary"),
                        attributeOf("sn", "binary"), attributeOf("jpegPhoto", photo())});

    EXPECT_EQ(verdictOn(request), 0);
    EXPECT_THAT(stored(dn, "jpegPhoto"), ElementsAre(photo()));
    EXPECT_EQ(verdictOn(request), 68);
}

TEST_F(AnExtendedOperationOnADirectory, SaysWhoTheConnectionIsBoundAs)
{
    LDAPConnection anonymous = anonymousTo(plainServer(slapd().port()));
    LDAPExtended bound = LDAPExtended::whoAmI(connection);
    LDAPExtended unbound = LDAPExtended::whoAmI(anonymous);

    EXPECT_EQ(verdictOn(bound), 0);
    EXPECT_EQ(bound.responseValue(), "dn:cn=reader,dc=corp,dc=test");
    EXPECT_EQ(verdictOn(unbound), 0);
    EXPECT_EQ(unbound.responseValue(), "");
}

TEST_F(AnExtendedOperationOnADirectory, ThatIsUnknownIsRefused)
{
    LDAPExtended request(connection, "1.3.6.1.4.1.4203.666.9.9", "x");

    EXPECT_EQ(verdictOn(request), 2);
    EXPECT_FALSE(request.hasResponseValue());
}

TEST_F(AnExtendedOperationOnADirectory, ChangesAPasswordAndGeneratesOne)
{
    LDAPConnection user(plainServer(slapd().port()), false);
    user.bind(annasDn, "pw-user0000001", LDAPConnection::Synchronous);
    LDAPExtended wrong = LDAPExtended::modifyPassword(user, "", "guessed", "x");
    LDAPExtended right = LDAPExtended::modifyPassword(user, "", "pw-user0000001", "n\0w"s);
    LDAPExtended generating = LDAPExtended::generatePassword(user, annasDn, "n\0w"s);

    EXPECT_EQ(verdictOn(wrong), 53);
    EXPECT_EQ(verdictOn(right), 0);
    EXPECT_EQ(right.generatedPassword(), "");
    ASSERT_EQ(verdictOn(generating), 0);
    std::string const generated = generating.generatedPassword();
    EXPECT_FALSE(generated.empty());
    LDAPConnection again(plainServer(slapd().port()), false);
    EXPECT_NO_THROW(again.bind(annasDn, generated, LDAPConnection::Synchronous));
}

TEST_F(AnExtendedOperationOnADirectory, DoesNotCancelWhatIsNotInFlight)
{
    LDAPExtended request = LDAPExtended::cancel(connection, 1000000);

    EXPECT_EQ(verdictOn(request), LDAP_NO_SUCH_OPERATION);
}

TEST_F(OperationsOnADirectory, GoOnWhileARequestThatWasCanceledIsStillAtWork)
{
    LDAPCompare slow(connection, "cn=sleep2,ou=codes,dc=corp,dc=test", "cn", "x");
    slow.send();
    slow.cancel();
    LDAPExtended next = LDAPExtended::whoAmI(connection);

    EXPECT_EQ(verdictOn(next), 0);
    EXPECT_EQ(slow.id(), 0);
    EXPECT_TRUE(slow.result().isNull());
}

// Peers

// Under AddressSanitizer, freed memory stays as it was, and the interceptors keep copies.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

class AChangeOfPassword : public OperationsOnADirectory {
protected:
    AChangeOfPassword()
    {
        // Joined here, so that they stand in no constant, and on the heap, so that they stand once.
        for (std::string* const each : {&m_old, &m_new}) {
            each->reserve(2000);
            *each += each == &m_old ? "pw-" : "new-";
            *each += "user0000003";
        }
    }
    void TearDown() override { explicit_bzero(&m_new[0], m_new.size()); }

    /// How often one of the passwords stands in memory besides its string.
    std::size_t copies() const
    {
        clearStack();
        return occurrencesInMemory(m_old) - 1 + occurrencesInMemory(m_new) - 1;
    }
    /// Changes the password of a connection, back and forth.
    void expectNothingLeft(LDAPConnection& administrator)
    {
        ASSERT_EQ(copies(), 0U);
        for (int i = 0; i < 4; ++i) {
            LDAPExtended change = LDAPExtended::modifyPassword(
                administrator, "uid=user0000003,ou=people,dc=corp,dc=test", m_old, m_new);
            change.send();
            EXPECT_EQ(copies(), 0U) << "sent";
            ASSERT_FALSE(change.wait(10));
            EXPECT_EQ(change.result().resultCode(), 0);
            EXPECT_EQ(copies(), 0U) << "answered";
            m_old.swap(m_new);
        }
        EXPECT_EQ(copies(), 0U) << "destroyed";
    }
    static LDAPConnection administratorOf(LDAPConnection::RefServer const& server)
    {
        LDAPConnection administrator(server, false);
        administrator.bind("cn=admin,dc=corp,dc=test", "secret", LDAPConnection::Synchronous);
        return administrator;
    }

    std::string m_old;
    std::string m_new;

private:
    /// Overwrites what the test itself left on the stack: to bind a function at its first call, the
    /// dynamic linker saves the registers there, through which the password was copied.
    __attribute__((noinline)) static void clearStack()
    {
        char frame[1UL << 16];
        explicit_bzero(frame, sizeof frame);
    }
};

TEST_F(AChangeOfPassword, LeavesNoPasswordInMemory)
{
    LDAPConnection administrator = administratorOf(plainServer(slapd().port()));

    expectNothingLeft(administrator);
}

TEST_F(AChangeOfPassword, LeavesNoPasswordInMemoryWithTls)
{
    LDAPConnection administrator = administratorOf(secureServer(slapd().tlsPort()));

    expectNothingLeft(administrator);
}

TEST_F(AChangeOfPassword, LeavesNoPasswordInMemoryIfNothingCanBeSent)
{
    LDAPConnection lost = administratorOf(plainServer(slapd().port()));
    {
        LDAPExtended change = LDAPExtended::modifyPassword(lost, "", m_old, m_new);
        lost.unbind();
        EXPECT_THROW(change.send(), LDAPException);
    }

    EXPECT_EQ(copies(), 0U);
}

#endif

namespace {

std::string response(std::string const& request, unsigned char tag)
{
    return ldapMessage(messageIdOf(request), berElement(tag, "\x0a\x01\0\x04\0\x04\0"s));
}

} // namespace

TEST(ACanceledRequest, HasItsLateResponseDropped)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) {
        std::string const first = peer.receiveMessage();
        std::string const abandon = peer.receiveMessage();
        std::string const second = peer.receiveMessage();
        peer.send(response(first, LDAP_RES_DELETE) + response(second, LDAP_RES_DELETE));
        peer.receiveUntilClosed();
    });
    LDAPConnection connection(plainServer(server.port()), true);
    LDAPDelete abandoned(connection, "cn=a");
    LDAPDelete other(connection, "cn=b");
    abandoned.send();
    abandoned.cancel();

    EXPECT_EQ(verdictOn(other), 0);

    EXPECT_EQ(operationOf(server.received().at(1)), AbandonRequest);
    timeval none{};
    LDAPMessageBuffer left;
    EXPECT_EQ(ldap_result(connection.impl()->session(), LDAP_RES_ANY, LDAP_MSG_ONE, &none,
                          left.address()),
              0);
    EXPECT_TRUE(abandoned.result().isNull());
}

// OpenLDAP itself keeps a response that has arrived.
TEST(ACanceledRequest, HasAResponseDroppedThatHasArrived)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) {
        std::string const first = peer.receiveMessage();
        std::string const second = peer.receiveMessage();
        peer.send(response(first, LDAP_RES_DELETE) + response(second, LDAP_RES_DELETE));
        peer.receiveUntilClosed();
    });
    LDAPConnection connection(plainServer(server.port()), true);
    LDAPDelete abandoned(connection, "cn=a");
    LDAPDelete other(connection, "cn=b");
    abandoned.send();
    EXPECT_EQ(verdictOn(other), 0);

    abandoned.cancel();

    timeval none{};
    LDAPMessageBuffer left;
    EXPECT_EQ(ldap_result(connection.impl()->session(), LDAP_RES_ANY, LDAP_MSG_ONE, &none,
                          left.address()),
              0);
}

TEST(ARequestToAPeerThatGoesAway, FailsAndMakesThePoolDropTheConnection)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) { peer.receiveMessage(); });
    LDAPConnection connection(plainServer(server.port()), true);
    LDAPModify request(connection, "cn=a");
    request.replace("cn", {"b"});
    request.send();

    EXPECT_THAT(thrownBy([&] { request.wait(10); }), IsFault("Changes.cpp", 165, 4, 8));
    EXPECT_FALSE(connection.impl()->isValid());
}

TEST(ARequestToASilentPeer, IsStillInFlightWhenTheTimeRunsOut)
{
    ScriptedServer const server([](ScriptedServer::Peer& peer) { peer.receiveUntilClosed(); });
    LDAPConnection connection(plainServer(server.port()), true);
    LDAPRename request(connection, "cn=a", "cn=b", LDAPRename::DeleteOldRdn);
    request.send();

    EXPECT_TRUE(request.wait(0));
    EXPECT_NE(request.id(), 0);
}

} // namespace SolvaneTest

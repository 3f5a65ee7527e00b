// Controls on a real directory: what its operations do with them, and what it answers.
#include "Directory.h"
#include "Faults.h"
#include "Slapd.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

using namespace Solvane;
using testing::ElementsAre;

namespace SolvaneTest {

namespace {

using Controls = std::list<LDAPOperation::Control>;

constexpr char annasDn[] = "uid=user0000001,ou=people,dc=corp,dc=test";
constexpr char adminDn[] = "cn=admin,dc=corp,dc=test";

std::string written(TemporaryDirectory const& folder, std::string const& name,
                    std::string const& text)
{
    std::ofstream(folder.path() / name) << text;
    return folder.path() / name;
}

int verdictOn(LDAPOperation& request)
{
    request.send();
    return request.wait(10) ? -1 : request.result().resultCode();
}

std::vector<std::string> valuesIn(LDAPSearchResultEntry const& entry, std::string const& type)
{
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        if (attribute.type().asString() == type) {
            return {attribute.value().begin(), attribute.value().end()};
        }
    }
    return {};
}

/// A search by OpenLDAP's own call: the library's has no controls.
struct Found {
    int code = -1;
    std::vector<std::string> uids;
    Controls controls;

    Found(LDAPConnection& connection, std::string const& filter,
          LDAPOperation::Control const& wanted)
    {
        ::LDAPControl control = {const_cast<char*>(wanted.oid().c_str()),
                                 {wanted.value().size(), const_cast<char*>(wanted.value().data())},
                                 static_cast<char>(wanted.isCritical() ? 1 : 0)};
        ::LDAPControl* sent[] = {&control, nullptr};
        LDAP* const session = connection.impl()->session();
        LDAPMessageBuffer chain;
        code = ldap_search_ext_s(session, people, LDAP_SCOPE_ONELEVEL, filter.c_str(), nullptr, 0,
                                 sent, nullptr, nullptr, 0, chain.address());
        for (LDAPMessage* each = ldap_first_message(session, chain.get()); each != nullptr;
             each = ldap_next_message(session, each)) {
            take(session, each);
        }
    }

private:
    void take(LDAP* session, LDAPMessage* message)
    {
        if (static_cast<ber_tag_t>(ldap_msgtype(message)) == LDAP_RES_SEARCH_ENTRY) {
            LDAPBerValBuffer values("");
            *values.address() = ldap_get_values_len(session, message, "uid");
            uids.emplace_back(values.get()[0]->bv_val, values.get()[0]->bv_len);
            return;
        }
        ::LDAPControl** received = nullptr;
        ldap_parse_result(session, message, nullptr, nullptr, nullptr, nullptr, &received, 0);
        for (::LDAPControl** each = received; each != nullptr && *each != nullptr; ++each) {
            berval const& value = (*each)->ldctl_value;
            controls.emplace_back((*each)->ldctl_oid, false,
                                  std::string(value.bv_val, value.bv_len));
        }
        ldap_controls_free(received);
    }
};

} // namespace

class ControlsOnADirectory : public SuiteWithSlapd<ControlsOnADirectory> {
public:
    static std::vector<std::string> options()
    {
        static TemporaryDirectory const folder;
        return {"--users",
                "5",
                "--global-conf",
                written(folder, "global.conf",
                        "moduleload sssvlv\nmoduleload ppolicy\nauthz-policy to\n"),
                "--db-conf",
                written(folder, "db.conf",
                        "overlay sssvlv\noverlay ppolicy\n"
                        "ppolicy_default cn=default,dc=corp,dc=test\n")};
    }

protected:
    void SetUp() override
    {
        SuiteWithSlapd<ControlsOnADirectory>::SetUp();
        if (hasSlapd()) {
            connection = boundTo(plainServer(slapd().port()));
            admin = boundAs(adminDn, "secret");
        }
    }

    static LDAPConnection boundAs(char const* dn, char const* password)
    {
        LDAPConnection made(plainServer(slapd().port()), false);
        made.bind(dn, password, LDAPConnection::Synchronous);
        return made;
    }

    /// Adds a person, and returns her DN.
    std::string person(std::string const& name)
    {
        std::string const dn = "cn=" + name + ",ou=new,dc=corp,dc=test";
        LDAPBinaryAdd add(connection, dn);
        add.attributes({attributeOf("objectClass", "inetOrgPerson"), attributeOf("cn", name),
                        attributeOf("sn", name)});
        EXPECT_EQ(verdictOn(add), 0);
        return dn;
    }

    LDAPConnection connection;
    LDAPConnection admin;
};

using AnAssertionOnADirectory = ControlsOnADirectory;
using AReadOnADirectory = ControlsOnADirectory;
using AProxyOnADirectory = ControlsOnADirectory;
using APolicyOnADirectory = ControlsOnADirectory;
using ASearchWithControls = ControlsOnADirectory;

TEST_F(AnAssertionOnADirectory, LetsTheOperationPassOnlyIfTheEntryMatches)
{
    std::string const dn = person("asserted");
    LDAPDelete request(connection, dn);
    request.controls() = {LDAPControls::assertion("(&(cn=asserted)(sn=other))")};
    EXPECT_EQ(verdictOn(request), LDAP_ASSERTION_FAILED);

    request.controls() = {LDAPControls::assertion("(&(cn=asserted)(!(sn=other)))")};

    EXPECT_EQ(verdictOn(request), 0);
}

TEST_F(AReadOnADirectory, ShowsTheEntryBeforeAndAfterAModify)
{
    LDAPModify request(connection, person("read"));
    std::string const photo("\xff\xd8\0\0\xff\xd9", 6);
    request.replace("sn", {"after"});
    request.add("jpegPhoto", {photo});
    request.controls() = {LDAPControls::preRead({"sn"}), LDAPControls::postRead({})};

    ASSERT_EQ(verdictOn(request), 0);

    LDAPSearchResultEntry before("");
    LDAPSearchResultEntry after("");
    ASSERT_TRUE(LDAPControls::preRead(request.responseControls(), before));
    ASSERT_TRUE(LDAPControls::postRead(request.responseControls(), after));
    EXPECT_EQ(before.entryName(), "cn=read,ou=new,dc=corp,dc=test");
    EXPECT_EQ(before.attributes().attributes().size(), 1U);
    EXPECT_THAT(valuesIn(before, "sn"), ElementsAre("read"));
    EXPECT_THAT(valuesIn(after, "sn"), ElementsAre("after"));
    EXPECT_THAT(valuesIn(after, "jpegPhoto"), ElementsAre(photo));
}

TEST_F(AReadOnADirectory, ShowsAnEntryThatIsDeletedAndOneThatIsRenamed)
{
    LDAPDelete deletion(connection, person("gone"));
    LDAPRename rename(connection, person("first"), "cn=second", LDAPRename::DeleteOldRdn);
    deletion.controls() = {LDAPControls::preRead({})};
    rename.controls() = {LDAPControls::postRead({"cn"})};

    ASSERT_EQ(verdictOn(deletion), 0);
    ASSERT_EQ(verdictOn(rename), 0);

    LDAPSearchResultEntry deleted("");
    LDAPSearchResultEntry renamed("");
    ASSERT_TRUE(LDAPControls::preRead(deletion.responseControls(), deleted));
    ASSERT_TRUE(LDAPControls::postRead(rename.responseControls(), renamed));
    EXPECT_THAT(valuesIn(deleted, "sn"), ElementsAre("gone"));
    EXPECT_EQ(renamed.entryName(), "cn=second,ou=new,dc=corp,dc=test");
    EXPECT_THAT(valuesIn(renamed, "cn"), ElementsAre("second"));
}

TEST_F(AProxyOnADirectory, ActsAsAnotherIdentityThatItMayActAs)
{
    LDAPModify permission(admin, readerDn);
    permission.replace("authzTo", {"dn.exact:" + std::string(annasDn)});
    ASSERT_EQ(verdictOn(permission), 0);
    LDAPExtended anna = LDAPExtended::whoAmI(connection);
    anna.controls() = {LDAPControls::proxiedAuthorization("dn:" + std::string(annasDn))};
    LDAPExtended other = LDAPExtended::whoAmI(connection);
    other.controls() = {LDAPControls::proxiedAuthorization("dn:" + std::string(adminDn))};

    EXPECT_EQ(verdictOn(anna), 0);
    EXPECT_EQ(anna.responseValue(), "dn:" + std::string(annasDn));
    EXPECT_EQ(verdictOn(other), LDAP_PROXIED_AUTHORIZATION_DENIED);
}

TEST_F(ControlsOnADirectory, ManageAReferralAsAnEntry)
{
    LDAPModify request(admin, "cn=elsewhere,ou=referrals,dc=corp,dc=test");
    request.replace("ref", {"ldap://third.corp.test/dc=corp,dc=test"});
    EXPECT_THAT(thrownBy([&] { verdictOn(request); }), IsFault("Result.cpp", 624, 4, 5));

    request.controls() = {LDAPControls::manageDsaIT()};

    EXPECT_EQ(verdictOn(request), 0);
}

TEST_F(APolicyOnADirectory, SaysWhatIsWrongWithANewPassword)
{
    LDAPBinaryAdd policy(admin, "cn=default,dc=corp,dc=test");
    LDAPAttribute classes = attributeOf("objectClass", "device");
    classes.value("pwdPolicy");
    policy.attributes(LDAPAttributeContainer(
        {classes, attributeOf("cn", "default"), attributeOf("pwdAttribute", "userPassword"),
         attributeOf("pwdMinLength", "10"), attributeOf("pwdCheckQuality", "2")}));
    ASSERT_EQ(verdictOn(policy), 0);
    LDAPConnection user = boundAs(annasDn, "pw-user0000001");
    LDAPExtended change = LDAPExtended::modifyPassword(user, "", "pw-user0000001", "short");
    change.controls() = {LDAPControls::passwordPolicy()};

    EXPECT_EQ(verdictOn(change), LDAP_CONSTRAINT_VIOLATION);

    LDAPControls::PasswordPolicy answer;
    ASSERT_TRUE(LDAPControls::passwordPolicy(change.responseControls(), answer));
    EXPECT_EQ(answer.error, PP_passwordTooShort);
    EXPECT_EQ(answer.secondsLeft, -1);
}

TEST_F(ASearchWithControls, GetsOnePageAfterTheOther)
{
    std::vector<std::string> uids;
    LDAPControls::Page page;
    int pages = 0;
    do {
        Found const found(connection, "(objectClass=*)",
                          LDAPControls::pagedResults(2, page.cookie));
        ASSERT_EQ(found.code, 0);
        ASSERT_TRUE(LDAPControls::pagedResults(found.controls, page));
        uids.insert(uids.end(), found.uids.begin(), found.uids.end());
        ++pages;
    } while (!page.cookie.empty());

    EXPECT_EQ(pages, 3);
    EXPECT_EQ(uids.size(), 5U);
    std::sort(uids.begin(), uids.end());
    EXPECT_EQ(std::unique(uids.begin(), uids.end()), uids.end());
}

TEST_F(ASearchWithControls, GetsSortedEntries)
{
    Found const found(connection, "(objectClass=*)",
                      LDAPControls::sort({{"uid", "caseIgnoreOrderingMatch", true}}));

    LDAPControls::SortResult result;
    EXPECT_EQ(found.code, 0);
    EXPECT_TRUE(LDAPControls::sort(found.controls, result));
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(found.uids.size(), 5U);
    EXPECT_TRUE(std::is_sorted(found.uids.rbegin(), found.uids.rend()));
}

TEST_F(ASearchWithControls, IsRefusedIfItMustBeSortedByAnUnknownType)
{
    Found const found(connection, "(objectClass=*)", LDAPControls::sort({{"noSuchType"}}));

    EXPECT_EQ(found.code, LDAP_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(found.uids.size(), 0U);
}

TEST_F(ASearchWithControls, GetsSubentriesOnlyOrAllOthers)
{
    Found const others(connection, "(objectClass=*)", LDAPControls::subentries(false));
    Found const subentries(connection, "(objectClass=*)", LDAPControls::subentries(true));

    EXPECT_EQ(others.code, 0);
    EXPECT_EQ(others.uids.size(), 5U);
    EXPECT_EQ(subentries.code, 0);
    EXPECT_EQ(subentries.uids.size(), 0U);
}

} // namespace SolvaneTest

// Changes, comparisons, extended operations, controls and streamed searches, with the object interface.
#include "Directory.h"
#include "TestedServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>

using namespace Solvane;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace SolvaneTest {

class OperationOnAServer : public ServerTest {
protected:
    static constexpr unsigned int patience = 10;

    // Besides the server's codes
    static constexpr int noAnswer = -1;
    static constexpr int closed = -2; ///< it closes the connection, as Samba does for controls

    /// The server's code for a request.
    static int verdictOn(LDAPOperation& request)
    {
        request.send();
        try {
            return request.wait(patience) ? noAnswer : request.result().resultCode();
        } catch (LDAPException const&) {
            EXPECT_FALSE(request.connection().impl()->isValid());
            return closed;
        }
    }
    /// The same, with a control.
    static int verdictOn(LDAPOperation& request, LDAPOperation::Control const& control)
    {
        request.controls() = {control};
        return verdictOn(request);
    }
    /// A code that differs between servers: records it for the guide and expects the profile's.
    static void expectKnown(std::string const& name, int code)
    {
        std::string small = name;
        std::transform(small.begin(), small.end(), small.begin(),
                       [](char each) { return static_cast<char>(std::tolower(each)); });
        measured(small, code);
        EXPECT_EQ(code, server().number(name));
    }

    static std::string dnOf(std::string const& name)
    {
        return "cn=" + name + ',' + server()["NEW"];
    }
    /// Adds a person; returns the DN.
    std::string person(std::string const& name, std::list<LDAPAttribute> attributes = {},
                       std::string const& objectClass = "inetOrgPerson")
    {
        std::string const dn = dnOf(name);
        attributes.push_back(attributeOf("objectClass", objectClass));
        attributes.push_back(attributeOf("cn", name));
        attributes.push_back(attributeOf("sn", name));
        LDAPBinaryAdd add(connection, dn);
        add.attributes(attributes);
        EXPECT_EQ(verdictOn(add), 0);
        return dn;
    }
    static std::vector<std::string> stored(std::string const& dn, std::string const& type)
    {
        LDAPConnection reading = server().bound();
        return valuesIn(answerTo(reading, lookupOf(dn)), type);
    }
    static bool exists(std::string const& dn)
    {
        LDAPConnection reading = server().bound();
        auto const parameter = searchFor(server()["NEW"], '(' + dn.substr(0, dn.find(',')) + ')');
        return !namesIn(answerTo(reading, parameter)).empty();
    }
    static LDAPConnection secureBound(std::string const& dn, std::string const& password)
    {
        LDAPConnection bound(
            LDAPConnection::RefServer(server().host(),
                                      static_cast<unsigned int>(server().number("LDAPS_PORT")),
                                      LDAPConnection::V3, true, patience, false, false),
            false);
        bound.bind(dn, password, LDAPConnection::Synchronous);
        return bound;
    }

    LDAPConnection connection = server().bound();
};

using ChangeOnAServer = OperationOnAServer;
using ControlOnAServer = OperationOnAServer;
using StreamOfAServer = OperationOnAServer;

TEST_F(ChangeOnAServer, AddsRemovesAndReplacesValuesInOneRequest)
{
    std::string const dn = person("modified");
    LDAPModify first(connection, dn);
    first.add("title", {"one"});
    first.add("jpegPhoto", {std::string("\xff\xd8\0\0\xff\xd9", 6)});
    LDAPModify second(connection, dn);
    second.remove("title", {});
    second.replace("sn", {"new"});

    EXPECT_EQ(verdictOn(first), 0);
    EXPECT_EQ(verdictOn(second), 0);

    EXPECT_THAT(stored(dn, "title"), IsEmpty());
    EXPECT_THAT(stored(dn, "sn"), ElementsAre("new"));
    EXPECT_THAT(stored(dn, "jpegPhoto"), ElementsAre(std::string("\xff\xd8\0\0\xff\xd9", 6)));
}

TEST_F(ChangeOnAServer, IsDoneWholeOrNotAtAll)
{
    std::string const dn = person("whole");
    LDAPModify request(connection, dn);
    request.add("title", {"kept out"});
    request.remove("mail", {"nobody@corp.test"});

    EXPECT_EQ(verdictOn(request), 16);
    EXPECT_THAT(stored(dn, "title"), IsEmpty());
}

TEST_F(ChangeOnAServer, IncrementsNumbersIfTheServerDoes)
{
    std::string const& type = server()["INCREMENTED_TYPE"];
    std::string const dn =
        person("counter", {attributeOf(type, "40")}, server()["INCREMENTED_CLASS"]);
    LDAPModify request(connection, dn);
    request.increment(type, 5);
    request.increment(type, -3);

    int const code = verdictOn(request);

    expectKnown("INCREMENT", code);
    EXPECT_THAT(stored(dn, type), ElementsAre(code == 0 ? "42" : "40"));
}

TEST_F(ChangeOnAServer, DeletesAnEntry)
{
    std::string const dn = person("deleted");
    LDAPDelete request(connection, dn);

    EXPECT_EQ(verdictOn(request), 0);
    EXPECT_FALSE(exists(dn));
    EXPECT_EQ(verdictOn(request), 32);
}

TEST_F(ChangeOnAServer, IsRefusedWhereTheBindGivesNoRight)
{
    LDAPModify modify(connection, server().personDn(1));
    modify.replace("sn", {"intruder"});
    LDAPDelete deletion(connection, server().personDn(1));

    EXPECT_EQ(verdictOn(modify), 50);
    EXPECT_EQ(verdictOn(deletion), 50);
}

TEST_F(ChangeOnAServer, RenamesAndMovesAnEntry)
{
    std::string const container = "ou=moved," + server()["NEW"];
    LDAPBinaryAdd add(connection, container);
    add.attributes({attributeOf("objectClass", "organizationalUnit"), attributeOf("ou", "moved")});
    ASSERT_EQ(verdictOn(add), 0);
    std::string const dn = person("old");
    LDAPRename rename(connection, dn, "cn=fresh", LDAPRename::DeleteOldRdn);
    LDAPRename move(connection, dnOf("fresh"), "cn=fresh", LDAPRename::DeleteOldRdn, container);

    EXPECT_EQ(verdictOn(rename), 0);
    EXPECT_FALSE(exists(dn));
    EXPECT_THAT(stored(dnOf("fresh"), "cn"), ElementsAre("fresh"));
    EXPECT_EQ(verdictOn(move), 0);
    EXPECT_THAT(stored("cn=fresh," + container, "cn"), ElementsAre("fresh"));
}

TEST_F(ChangeOnAServer, KeepsTheOldNameIfTheServerDoes)
{
    LDAPRename rename(connection, person("former"), "cn=latter", LDAPRename::KeepOldRdn);

    int const code = verdictOn(rename);

    expectKnown("KEEP_OLD_RDN", code);
    EXPECT_EQ(exists(dnOf("latter")), code == 0);
}

TEST_F(OperationOnAServer, ComparesAValue)
{
    auto const compared = [&](std::string const& type, std::string const& value) {
        LDAPCompare request(connection, server().personDn(7), type, value);
        int const code = verdictOn(request);
        return std::make_pair(code, request.outcome());
    };

    EXPECT_EQ(compared("mail", "user0000007@corp.test"),
              std::make_pair(6, LDAPCompare::CompareTrue));
    EXPECT_EQ(compared("mail", "other@corp.test"), std::make_pair(5, LDAPCompare::CompareFalse));

    LDAPCompare missing(connection, server().personDn(7), "title", "x");
    expectKnown("COMPARE_MISSING", verdictOn(missing));
}

TEST_F(OperationOnAServer, AsksWhoItIs)
{
    LDAPExtended request = LDAPExtended::whoAmI(connection);

    int const code = verdictOn(request);

    EXPECT_EQ(code, server().number("WHO_AM_I"));
    EXPECT_EQ(request.hasResponseValue(), code == 0);
    if (code == 0) {
        EXPECT_EQ(request.responseValue().rfind("dn:", 0), 0U) << request.responseValue();
    }
}

TEST_F(OperationOnAServer, ChangesAPasswordIfTheServerDoes)
{
    std::string const dn = server().personDn(80);
    LDAPConnection user = secureBound(dn, "pw-user0000080");
    LDAPConnection admin = secureBound(server()["ADMIN_DN"], server()["ADMIN_PW"]);
    LDAPExtended wrong = LDAPExtended::modifyPassword(user, "", "guessed", "another-80");
    LDAPExtended change = LDAPExtended::modifyPassword(admin, dn, "", "another-80");

    expectKnown("PASSWD_WRONG", verdictOn(wrong));
    int const code = verdictOn(change);

    expectKnown("PASSWD", code);
    EXPECT_NO_THROW(secureBound(dn, code == 0 ? "another-80" : "pw-user0000080"));
}

TEST_F(OperationOnAServer, CancelsNothingThatIsNotInFlight)
{
    LDAPExtended request = LDAPExtended::cancel(connection, 1000000);

    expectKnown("CANCEL", verdictOn(request));
}

TEST_F(OperationOnAServer, ThatIsUnknownIsRefused)
{
    LDAPExtended request(connection, "1.3.6.1.4.1.4203.666.9.9", "x");

    EXPECT_EQ(verdictOn(request), 2);
}

TEST_F(ControlOnAServer, ThatIsUnknownIsRefusedIfCritical)
{
    char const oid[] = "1.3.6.1.4.1.4203.666.9.9";
    auto const verdict = [&](bool isCritical) {
        LDAPCompare request(server().bound(), server().personDn(7), "mail",
                            "user0000007@corp.test");
        return verdictOn(request, LDAPOperation::Control(oid, isCritical));
    };

    expectKnown("CONTROL_UNKNOWN", verdict(true));
    EXPECT_EQ(verdict(false), 6);
}

TEST_F(ControlOnAServer, AssertsBeforeAChangeIfTheServerDoes)
{
    std::string const dn = person("asserted");
    LDAPModify request(connection, dn);
    request.replace("sn", {"new"});

    int const code = verdictOn(request, LDAPControls::assertion("(sn=other)"));

    expectKnown("CONTROL_ASSERTION", code);
    EXPECT_THAT(stored(dn, "sn"), ElementsAre("asserted")); // in no case
    if (code == 122) {
        EXPECT_EQ(verdictOn(request, LDAPControls::assertion("(sn=asserted)")), 0);
    }
}

TEST_F(ControlOnAServer, ReadsBeforeAndAfterAChangeIfTheServerDoes)
{
    std::string const dn = person("read");
    LDAPSearchResultEntry entry("");
    LDAPModify first(connection, dn);
    first.replace("sn", {"after"});

    int const before = verdictOn(first, LDAPControls::preRead({"sn"}));

    expectKnown("CONTROL_PRE_READ", before);
    EXPECT_EQ(LDAPControls::preRead(first.responseControls(), entry), before == 0);
    EXPECT_THAT(stored(dn, "sn"), ElementsAre(before == 0 ? "after" : "read"));

    LDAPModify second(server().bound(), dn);
    second.replace("sn", {"later"});

    int const after = verdictOn(second, LDAPControls::postRead({"sn"}));

    expectKnown("CONTROL_POST_READ", after);
    EXPECT_EQ(LDAPControls::postRead(second.responseControls(), entry), after == 0);
}

TEST_F(ControlOnAServer, ActsAsAnotherIdentityIfTheServerAllowsIt)
{
    LDAPConnection admin = secureBound(server()["ADMIN_DN"], server()["ADMIN_PW"]);
    LDAPModify request(admin, server().personDn(7));
    request.replace("sn", {"intruder"});

    int const code =
        verdictOn(request, LDAPControls::proxiedAuthorization("dn:" + server().personDn(8)));

    // With the rights of another person, who may not.
    expectKnown("CONTROL_PROXY", code);
    EXPECT_THAT(stored(server().personDn(7), "sn"), Not(Contains("intruder")));
}

// What it says: DenialByAServer.
TEST_F(ControlOnAServer, AsksForThePasswordPolicyIfTheServerDoes)
{
    LDAPModify request(connection, person("governed"));
    request.replace("sn", {"new"});
    LDAPOperation::Control const control = LDAPControls::passwordPolicy();

    int const code = verdictOn(request, LDAPOperation::Control(control.oid(), true));

    expectKnown("CONTROL_POLICY", code);
}

// Searches, as streams: those of LDAPSearch have no controls

TEST_F(StreamOfAServer, GivesEveryEntryOnceWithPages)
{
    LDAPSearchStream::Parameter parameter(server()["PEOPLE"]);
    parameter.scope = LDAPSearch::ScopeOneLevel;
    parameter.filter = "(mail=*)";
    parameter.attributes = {LDAPAttributeType("mail")};
    parameter.pageSize = 7;
    LDAPSearchStream stream(connection, parameter);
    stream.send();
    std::set<std::string> names;
    int taken = 0;
    int const most = 105; // less than any limit

    while (taken < most && stream.next(patience) == LDAPSearchStream::ItemEntry) {
        names.insert(stream.entry().entryName());
        ++taken;
    }

    int const users = server().number("USERS");
    EXPECT_EQ(taken, std::min(most, users));
    EXPECT_THAT(names, SizeIs(static_cast<std::size_t>(taken)));
    measured("pages", taken);
    if (taken == most) {
        stream.cancel();
    } else {
        EXPECT_EQ(stream.result().resultCode(), 0);
    }
    LDAPCompare next(connection, server().personDn(7), "mail", "user0000007@corp.test");
    EXPECT_EQ(verdictOn(next), 6); // the connection is usable
}

class ControlledStream : public StreamOfAServer {
protected:
    /// The code of a search with a control, whose entries are kept.
    int verdict(std::string const& base, LDAPSearch::Scope scope,
                LDAPOperation::Control const& control)
    {
        LDAPSearchStream::Parameter parameter(base);
        parameter.scope = scope;
        parameter.filter = "(objectClass=*)";
        stream = LDAPSearchStream(connection, parameter);
        stream.controls().push_back(control);
        stream.send();
        names.clear();
        try {
            return takeAll();
        } catch (LDAPException const&) {
            EXPECT_FALSE(connection.impl()->isValid());
            return closed;
        }
    }

    int takeAll()
    {
        for (;;) {
            switch (stream.next(patience)) {
            case LDAPSearchStream::ItemEntry:
                names.push_back(stream.entry().entryName());
                break;
            case LDAPSearchStream::ItemReference:
                ++references;
                break;
            case LDAPSearchStream::ItemTimeout:
                return noAnswer;
            case LDAPSearchStream::ItemEnd:
                return stream.result().resultCode();
            }
        }
    }

    LDAPSearchStream stream;
    std::vector<std::string> names;
    int references = 0;
};

using ControlOfASearch = ControlledStream;

TEST_F(ControlOfASearch, SortsEntriesIfTheServerDoes)
{
    int const code = verdict(server()["ESCAPES"], LDAPSearch::ScopeOneLevel,
                             LDAPControls::sort({{"cn", "", true}}));

    expectKnown("CONTROL_SORT", code);
    LDAPControls::SortResult sorted;
    EXPECT_EQ(LDAPControls::sort(stream.responseControls(), sorted),
              code == 0 && server().number("SORT_RESULT") != 0);
    EXPECT_EQ(sorted.code, 0);
    EXPECT_THAT(names, SizeIs(code == 0 ? 6 : 0));
}

TEST_F(ControlOfASearch, ManagesAReferralAsAnEntryIfTheServerDoes)
{
    bool const hasReferrals = server().has("REFERRAL_ENTRY");
    std::string const base = hasReferrals ? server()["REFERRAL_ENTRY"] : server()["ESCAPES"];

    int const code = verdict(base, LDAPSearch::ScopeBase, LDAPControls::manageDsaIT());

    expectKnown("CONTROL_MANAGE", code);
    EXPECT_THAT(names, SizeIs(code == 0 ? 1 : 0));
    EXPECT_EQ(references, 0);
}

TEST_F(ControlOfASearch, LeavesSubentriesOutIfTheServerDoes)
{
    int const code =
        verdict(server()["ESCAPES"], LDAPSearch::ScopeOneLevel, LDAPControls::subentries(false));

    expectKnown("CONTROL_SUBENTRIES", code);
    EXPECT_THAT(names, SizeIs(code == 0 ? 6 : 0));
}

} // namespace SolvaneTest

// Searches as values: escaping of values for filters, filter templates for one address, and
// parameters as OpenLDAP's arguments.
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/LDAPUtil.h>

#include "Faults.h"

#include <solvane/ldap/impl/LDAPAdapters.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPSearchImpl.h>

#include <ldap.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::IsEmpty;

// Exported by libldap, declared in no installed header: decodes a value of a filter in place and
// returns its length, negative for a malformed one.
extern "C" ber_slen_t ldap_pvt_filter_value_unescape(char* value);

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;

namespace {

bool isHexDigit(char character)
{
    return std::string("0123456789abcdefABCDEF").find(character) != std::string::npos;
}

/// The bytes that a filter value represents (RFC 4515 section 3); "malformed" if it is invalid.
std::string unescaped(std::string const& value)
{
    std::string result;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\') {
            result += value[i];
            continue;
        }
        if (i + 2 >= value.size() || !isHexDigit(value[i + 1]) || !isHexDigit(value[i + 2])) {
            return "malformed";
        }
        result += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    return result;
}

std::string randomBytes(std::mt19937& random, std::size_t longest)
{
    std::string bytes(std::uniform_int_distribution<std::size_t>(0, longest)(random), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(random));
    }
    return bytes;
}

} // namespace

TEST(FormalizingAValue, EscapesTheCharactersThatFiltersGiveAMeaning)
{
    struct {
        char const* shows;
        std::string value;
        std::string formal;
    } const cases[] = {
        {"nothing", "", ""},
        {"an asterisk", "*", "\\2A"},
        {"an opening parenthesis", "(", "\\28"},
        {"a closing parenthesis", ")", "\\29"},
        {"a backslash", "\\", "\\5C"},
        {"a whole filter", "(cn=*)", "\\28cn=\\2A\\29"},
        {"a backslash between letters", "a\\b", "a\\5Cb"},
        {"an escape is escaped again", "\\2A", "\\5C2A"},
        {"the last character", "abc*", "abc\\2A"},
        {"several in a row", "**()\\\\", "\\2A\\2A\\28\\29\\5C\\5C"},
        {"none", "jdoe@corp.test", "jdoe@corp.test"},
        {"what means something outside of values", "a&b|c!d=e~f<g>h", "a&b|c!d=e~f<g>h"},
        {"zero bytes stay round an escape", std::string("\0*\0", 3), std::string("\0\\2A\0", 5)},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(LDAPUtil::formalizeQueryFilter(row.value), row.formal) << row.shows;
    }
}

TEST(FormalizingAValue, CopiesEveryOtherByte)
{
    for (int number = 0; number < 256; ++number) {
        std::string const byte(1, static_cast<char>(number));
        if (byte.find_first_of("*()\\") != std::string::npos) {
            continue;
        }

        EXPECT_EQ(LDAPUtil::formalizeQueryFilter(byte), byte) << "byte " << number;
    }
}

TEST(FormalizingAValue, IsUndoneByTheFilterGrammar)
{
    std::mt19937 random(20040615);
    for (int round = 0; round < 5000; ++round) {
        std::string const value = randomBytes(random, 40);

        std::string const formal = LDAPUtil::formalizeQueryFilter(value);

        ASSERT_EQ(unescaped(formal), value) << "round " << round;
        ASSERT_EQ(formal.find_first_of("*()"), std::string::npos) << "round " << round;
    }
}

TEST(FormalizingAValue, IsUndoneByOpenLdap)
{
    std::mt19937 random(20060601);
    for (int round = 0; round < 5000; ++round) {
        std::string value = randomBytes(random, 40);
        value.resize(std::min(value.find('\0'), value.size()));

        std::string const formal = LDAPUtil::formalizeQueryFilter(value);

        std::vector<char> text(formal.c_str(), formal.c_str() + formal.size() + 1);
        ber_slen_t const length = ldap_pvt_filter_value_unescape(text.data());
        ASSERT_GE(length, 0) << "round " << round;
        ASSERT_EQ(std::string(text.data(), static_cast<std::size_t>(length)), value)
            << "round " << round;
    }
}

TEST(InstantiatingATemplate, PutsThePartsOfTheAddressIn)
{
    struct {
        char const* shows;
        std::string filterTemplate;
        char const* address;
        char const* filter;
    } const cases[] = {
        {"each part", "(&(uid=$u)(dc=$d)(mail=$m))", "jdoe@corp.test",
         "(&(uid=jdoe)(dc=corp.test)(mail=jdoe@corp.test))"},
        {"escaped", "(mail=$m)", "j*(doe)@corp\\test", "(mail=j\\2A\\28doe\\29@corp\\5Ctest)"},
        {"it loses the text before an optional value", "(a=1)$b(uid=$u)", "jdoe@corp.test",
         "(uid=jdoe)"},
        {"also before the other one", "(a=1)$g(uid=$u)", "jdoe@corp.test", "(uid=jdoe)"},
        {"a hash for an empty domain", "(dc=$d)", "jdoe", "(dc=#)"},
        {"the template up to its first zero byte", std::string("(uid=$u)\0$", 10), "jdoe@corp.test",
         "(uid=jdoe)"},
        {"the address is split at its last at", "$u|$d", "a@b@corp.test", "a@b|corp.test"},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(LDAPUtil::instanceFilterTemplate(row.filterTemplate, EmailAddress(row.address)),
                  row.filter)
            << row.shows;
    }
}

TEST(InstantiatingATemplate, PassesTheExceptionOfAMalformedTemplateOn)
{
    EmailAddress const address("jdoe@corp.test");

    auto const thrown = thrownBy([&] { LDAPUtil::instanceFilterTemplate(" cn=$x ", address); });

    EXPECT_THAT(
        thrown,
        IsFault("Utility.cpp", 169, 2, 0,
                "Invalid format specifier in LdapQuery definition: at pos 3 (x) :  cn=$x "));
    EXPECT_FALSE(thrown.hasCause());
}

TEST(InstantiatingATemplate, ReportsTheTemplateUpToItsFirstZeroByte)
{
    EmailAddress const address("jdoe@corp.test");

    auto const thrown =
        thrownBy([&] { LDAPUtil::instanceFilterTemplate(std::string("cn=$\0u", 6), address); });

    EXPECT_EQ(thrown.stringParameter(),
              "Invalid UserQuery string: The last character must be a '$' : cn=$");
}

// Search parameters, and how they become OpenLDAP's arguments.

namespace {

/// A search on a connection that nothing is sent on.
class ASearchAdapter : public testing::Test {
protected:
    ASearchAdapter()
        : connection(LDAPConnection::RefServer("127.0.0.1", 389, LDAPConnection::V3, false, 5,
                                               false, false),
                     true)
    {
        request.connection(connection);
    }

    LDAPSearch::Parameter& parameter() { return request.parameter(); }

    LDAPConnection connection;
    LDAPSearchImpl request;
};

LDAPSearch::Scope scope(int number) { return static_cast<LDAPSearch::Scope>(number); }
LDAPSearch::Deref deref(int number) { return static_cast<LDAPSearch::Deref>(number); }

} // namespace

TEST(SearchParameters, HaveDefaults)
{
    EXPECT_EQ(LDAPSearch::Parameter().baseDN, "");
    EXPECT_EQ(LDAPSearch::Parameter("dc=test").baseDN, "dc=test");
    for (LDAPSearch::Parameter const& parameter :
         {LDAPSearch::Parameter(), LDAPSearch::Parameter("dc=test")}) {
        EXPECT_EQ(parameter.filter, "");
        EXPECT_THAT(parameter.attributes, IsEmpty());
        EXPECT_EQ(parameter.scope, LDAPSearch::ScopeSubtree);
        EXPECT_EQ(parameter.deref, LDAPSearch::DerefNever);
        EXPECT_EQ(parameter.sizeLimit, 0);
        EXPECT_EQ(parameter.timeLimit, 10);
        EXPECT_FALSE(parameter.attrsOnly);
    }
}

TEST(SearchParameters, UseTheNumbersOfTheProtocol)
{
    EXPECT_EQ(LDAPSearch::ScopeBase, 0);
    EXPECT_EQ(LDAPSearch::ScopeOneLevel, 1);
    EXPECT_EQ(LDAPSearch::ScopeSubtree, 2);
    EXPECT_EQ(LDAPSearch::DerefNever, 0);
    EXPECT_EQ(LDAPSearch::DerefSearching, 1);
    EXPECT_EQ(LDAPSearch::DerefFinding, 2);
    EXPECT_EQ(LDAPSearch::DerefAlways, 3);
}

TEST(SearchParameters, AreIndependentOfTheirCopy)
{
    LDAPSearch::Parameter original("dc=test");
    original.attributes.push_back(LDAPAttributeType("cn"));

    LDAPSearch::Parameter copy(original);
    copy.baseDN = "dc=other";
    copy.attributes.clear();

    EXPECT_EQ(original.baseDN, "dc=test");
    EXPECT_EQ(original.attributes.size(), 1U);
}

TEST(SharedSearchParameters, HoldNothingByDefault)
{
    LDAPSearch::RefParameter const none;

    EXPECT_EQ(none.get(), nullptr);
}

TEST(SharedSearchParameters, AreACopyOfWhatTheyAreMadeFrom)
{
    LDAPSearch::Parameter original("dc=test");

    LDAPSearch::RefParameter const shared(original);
    original.baseDN = "dc=other";

    EXPECT_EQ(shared->baseDN, "dc=test");
}

TEST(SharedSearchParameters, AreMadeFromABase)
{
    LDAPSearch::RefParameter const shared(std::string("dc=test"));

    EXPECT_EQ(shared->baseDN, "dc=test");
    EXPECT_EQ(shared->timeLimit, 10);
}

TEST(SharedSearchParameters, AreOneRecordForAllCopies)
{
    LDAPSearch::RefParameter const first(std::string("dc=test"));
    LDAPSearch::RefParameter const second(first);

    second->filter = "(cn=a)";

    EXPECT_EQ(first->filter, "(cn=a)");
}

TEST_F(ASearchAdapter, SharesTheRecordBetweenSearchesOfOneSharedParameter)
{
    LDAPSearch::RefParameter const shared(std::string("dc=test"));
    LDAPSearch first(connection, shared);
    LDAPSearch second(connection, LDAPSearch::RefParameter(shared));

    shared->filter = "(cn=a)";

    EXPECT_EQ(&first.parameter(), &second.parameter());
    EXPECT_EQ(first.parameter().filter, "(cn=a)");
}

TEST_F(ASearchAdapter, GivesEachSearchOfOneParameterARecordOfItsOwn)
{
    LDAPSearch::Parameter parameter("dc=test");
    LDAPSearch first(connection, parameter);
    LDAPSearch second(connection, parameter);

    parameter.baseDN = "dc=other";
    first.parameter().filter = "(cn=a)";

    EXPECT_EQ(first.parameter().baseDN, "dc=test");
    EXPECT_EQ(second.parameter().filter, "");
}

TEST_F(ASearchAdapter, MakesARecordWithDefaultsWhereThereIsNone)
{
    LDAPSearch search(connection, LDAPSearch::RefParameter());

    search.parameter().baseDN = "dc=test";

    EXPECT_EQ(search.parameter().baseDN, "dc=test");
    EXPECT_EQ(search.parameter().scope, LDAPSearch::ScopeSubtree);
}

TEST_F(ASearchAdapter, TakesEveryArgumentFromTheRequest)
{
    parameter().baseDN = "dc=test";
    parameter().filter = "(cn=a)";
    parameter().scope = LDAPSearch::ScopeOneLevel;
    parameter().deref = LDAPSearch::DerefFinding;
    parameter().attrsOnly = true;

    LDAPSearchAdapter const adapter(request);

    EXPECT_EQ(adapter.ld, connection.context());
    EXPECT_STREQ(adapter.base, "dc=test");
    EXPECT_EQ(adapter.scope, 1);
    EXPECT_EQ(adapter.deref, 2);
    EXPECT_STREQ(adapter.filter, "(cn=a)");
    EXPECT_EQ(adapter.attrs, nullptr);
    EXPECT_EQ(adapter.attrsonly, 1);
}

TEST_F(ASearchAdapter, PassesDefaultsOn)
{
    LDAPSearchAdapter const adapter(request);

    EXPECT_STREQ(adapter.base, "");
    EXPECT_EQ(adapter.scope, 2);
    EXPECT_EQ(adapter.deref, 0);
    EXPECT_EQ(adapter.filter, nullptr);
    EXPECT_EQ(adapter.attrs, nullptr);
    EXPECT_EQ(adapter.attrsonly, 0);
}

TEST_F(ASearchAdapter, PointsIntoTheRecord)
{
    parameter().baseDN = "dc=test";
    parameter().filter = "(cn=a)";
    parameter().attributes = {LDAPAttributeType("cn"), LDAPAttributeType("userCertificate;binary")};

    LDAPSearchAdapter const adapter(request);

    EXPECT_EQ(static_cast<void const*>(adapter.base), parameter().baseDN.data());
    EXPECT_EQ(static_cast<void const*>(adapter.filter), parameter().filter.data());
    ASSERT_NE(adapter.attrs, nullptr);
    EXPECT_EQ(static_cast<void const*>(adapter.attrs[0]),
              parameter().attributes.front().asString().data());
    EXPECT_EQ(static_cast<void const*>(adapter.attrs[1]),
              parameter().attributes.back().asString().data());
    EXPECT_EQ(adapter.attrs[2], nullptr);
}

TEST_F(ASearchAdapter, LeavesEmptyDescriptionsOut)
{
    parameter().attributes = {LDAPAttributeType("cn"), LDAPAttributeType(""),
                              LDAPAttributeType("mail")};

    LDAPSearchAdapter const adapter(request);

    EXPECT_STREQ(adapter.attrs[0], "cn");
    EXPECT_STREQ(adapter.attrs[1], "mail");
    EXPECT_EQ(adapter.attrs[2], nullptr);
    EXPECT_EQ(adapter.attrs[3], nullptr);
}

TEST_F(ASearchAdapter, NamesNoAttributeWhereAllDescriptionsAreEmpty)
{
    parameter().attributes = {LDAPAttributeType(""), LDAPAttributeType(";binary")};

    LDAPSearchAdapter const adapter(request);

    ASSERT_NE(adapter.attrs, nullptr);
    EXPECT_EQ(adapter.attrs[0], nullptr);
    EXPECT_EQ(adapter.attrs[1], nullptr);
    EXPECT_EQ(adapter.attrs[2], nullptr);
}

TEST_F(ASearchAdapter, RefusesANullDescription)
{
    parameter().attributes = {LDAPAttributeType("cn"), LDAPAttributeType()};

    EXPECT_THAT(thrownBy([&] { LDAPSearchAdapter const adapter(request); }),
                IsFault("Attribute.cpp", 41, 1, 0));
}

TEST_F(ASearchAdapter, RefusesAnAliasModeAndBeforeItAScopeOutOfRange)
{
    parameter().deref = deref(4);
    EXPECT_THAT(thrownBy([&] { LDAPSearchAdapter const adapter(request); }),
                IsFault("Attribute.cpp", 579, 2, 0));

    parameter().scope = scope(3);
    EXPECT_THAT(thrownBy([&] { LDAPSearchAdapter const adapter(request); }),
                IsFault("Attribute.cpp", 531, 2, 0));
}

TEST_F(ASearchAdapter, RefusesANullConnection)
{
    LDAPConnection null;
    request.connection(null);

    EXPECT_THAT(thrownBy([&] { LDAPSearchAdapter const adapter(request); }),
                IsFault("Connection.cpp", 129, 1, 0));
}

TEST(AScope, KeepsItsNumberAndIsRefusedOutOfRangeWithoutAnyText)
{
    for (int const number : {0, 1, 2}) {
        EXPECT_EQ(LDAPSearchAdapter::fromScope(scope(number)), number);
        EXPECT_EQ(LDAPSearchAdapter::toScope(number), scope(number));
    }
    for (int const number : {INT_MIN, -1, 3, 4, INT_MAX}) {
        SCOPED_TRACE(number);
        EXPECT_THAT(thrownBy([&] { LDAPSearchAdapter::fromScope(scope(number)); }),
                    IsFault("Attribute.cpp", 531, 2, 0, ""));
        EXPECT_THAT(thrownBy([&] { LDAPSearchAdapter::toScope(number); }),
                    IsFault("Attribute.cpp", 553, 2, 0, ""));
    }
}

TEST(AnAliasMode, KeepsItsNumberAndIsRefusedOutOfRangeWithoutAnyText)
{
    for (int const number : {0, 1, 2, 3}) {
        EXPECT_EQ(LDAPSearchAdapter::fromDeref(deref(number)), number);
        EXPECT_EQ(LDAPSearchAdapter::toDeref(number), deref(number));
    }
    for (int const number : {INT_MIN, -1, 4, 5, INT_MAX}) {
        SCOPED_TRACE(number);
        EXPECT_THAT(thrownBy([&] { LDAPSearchAdapter::fromDeref(deref(number)); }),
                    IsFault("Attribute.cpp", 579, 2, 0, ""));
        auto const thrown = thrownBy([&] { LDAPSearchAdapter::toDeref(number); });
        EXPECT_THAT(thrown, IsFault("Attribute.cpp", 605, 2, 0, ""));
        EXPECT_FALSE(thrown.hasCause());
    }
}

// Search parameters, and how they become OpenLDAP's arguments.
#include <solvane/ldap/LDAPRequest.h>

#include <solvane/ldap/impl/LDAPAdapters.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPSearchImpl.h>

#include "Faults.h"

#include <gmock/gmock.h>

#include <climits>

using namespace Solvane;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::IsEmpty;

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

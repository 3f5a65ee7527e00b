// The library's exception as a value.
#include <solvane/ldap/LDAPException.h>

#include "Faults.h"

#include <gtest/gtest.h>

#include <climits>
#include <typeinfo>

using namespace Solvane;
using SolvaneTest::causeType;
using SolvaneTest::IsFault;

namespace {

LDAPException caughtWithCause()
{
    try {
        throw LDAPException("LDAPException", 2, "Attribute.cpp", 531, 6);
    } catch (LDAPException const& caught) {
        LDAPException outer("LDAPException", 4, "Search.cpp", 289, 4);
        outer.cause(caught);
        return outer;
    }
}

} // namespace

TEST(AnLdapException, HoldsWhatItWasMadeWith)
{
    LDAPException const exception("LDAPException", 4, "Connection.cpp", 403, 1);

    EXPECT_EQ(exception.name(), "LDAPException");
    EXPECT_EQ(exception.code(), 4);
    EXPECT_EQ(exception.fileName(), "Connection.cpp");
    EXPECT_EQ(exception.lineNumber(), 403U);
    EXPECT_EQ(exception.getType(), 1);
    EXPECT_EQ(exception.stringParameter(), "");
    EXPECT_EQ(exception.intParameter(), 0);
    EXPECT_FALSE(exception.hasCause());
}

TEST(AnLdapException, ReturnsTheTypeThatWasSet)
{
    LDAPException exception("LDAPException", 4, "Connection.cpp", 403, 1);

    for (int const type : {0, 7, -1, INT_MIN, INT_MAX}) {
        exception.setType(type);

        EXPECT_EQ(exception.getType(), type);
    }
}

TEST(AnLdapException, KeepsEverythingWhenCopied)
{
    LDAPException original = caughtWithCause();
    original.stringParameter("detail");
    original.intParameter(-7);

    LDAPException const copy(original);

    EXPECT_THAT(copy, IsFault("Search.cpp", 289, 4, 4, "detail"));
    EXPECT_EQ(copy.intParameter(), -7);
    EXPECT_EQ(causeType(copy), 6);
    EXPECT_EQ(copy.cause().lineNumber(), 531U);
}

TEST(AnLdapException, KeepsEverythingWhenAssigned)
{
    LDAPException target("LDAPException", 1, "Connection.cpp", 129, 0);

    target = caughtWithCause();

    EXPECT_THAT(target, IsFault("Search.cpp", 289, 4, 4));
    EXPECT_EQ(causeType(target), 6);
}

TEST(AnLdapException, IsIndependentOfItsCopy)
{
    LDAPException original("LDAPException", 4, "Connection.cpp", 241, 3);
    LDAPException copy(original);

    copy.setType(1);
    copy.stringParameter("changed");

    EXPECT_EQ(original.getType(), 3);
    EXPECT_EQ(original.stringParameter(), "");
}

TEST(AnLdapException, IsCaughtAsTheRuntimesException)
{
    try {
        throw LDAPException("LDAPException", 2, "Utility.cpp", 169, 0);
    } catch (Exception const& caught) {
        EXPECT_EQ(typeid(caught), typeid(LDAPException));
        EXPECT_EQ(caught.lineNumber(), 169U);
    }
}

TEST(AnLdapException, OutlivesTheHandlerThatAttachedItsCause)
{
    LDAPException const outer = caughtWithCause();

    ASSERT_TRUE(outer.hasCause());
    EXPECT_EQ(outer.cause().fileName(), "Attribute.cpp");
    EXPECT_EQ(outer.cause().code(), 2);
}

TEST(AnLdapException, HasAnEmptyFileNameWhereNoneIsGiven)
{
    LDAPException const exception("LDAPException", 4, nullptr, 0, 0);

    EXPECT_EQ(exception.fileName(), "");
}

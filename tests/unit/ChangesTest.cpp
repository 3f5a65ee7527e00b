// Delete, compare, rename, modify and the binary add: the exact arguments, and what each reports.
#include "Allocations.h"
#include "CallTest.h"

#include <new>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using namespace Solvane;
using testing::ElementsAre;
using testing::IsEmpty;
using Control = Solvane::LDAPOperation::Control;

constexpr char dn[] = "cn=a,dc=example";

LDAPAttribute attribute(std::string const& type, std::list<std::string> const& values)
{
    LDAPAttribute made((LDAPAttributeType(type)));
    for (std::string const& value : values) {
        made.value(value);
    }
    return made;
}

class ChangesTest : public ConnectedTest {
protected:
    ChangesTest()
    {
        openldap.ldap_delete_ext = takenAs<4>;
        openldap.ldap_compare_ext = takenAs<6>;
        openldap.ldap_rename = takenAs<7>;
        openldap.ldap_modify_ext = takenAs<5>;
        openldap.ldap_add_ext = takenAs<5>;
    }

    /// Takes a request as message 3; its id is the argument after `before` others.
    template <std::size_t before, typename... Arguments> static int taken(Arguments... arguments)
    {
        *std::get<before>(std::make_tuple(arguments...)) = 3;
        return LDAP_SUCCESS;
    }
    template <std::size_t before>
    static constexpr auto takenAs = [](auto... arguments) { return taken<before>(arguments...); };

    /// Expects these faults of `send` and `wait` from an operation of this type.
    void expectFaults(LDAPOperation& request, unsigned int refused, unsigned int failed, int type)
    {
        request.send();
        openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
        EXPECT_THAT(
            thrownBy([&] { request.wait(5); }),
            IsFault("Changes.cpp", failed, 4, type, "Can't contact LDAP server : cn=a,dc=example"));
        EXPECT_EQ(connection.openldapErrorCode(), -1);
        connection.unbind();
        EXPECT_THAT(thrownBy([&] { request.send(); }),
                    IsFault("Changes.cpp", refused, 4, type,
                            "Can't contact LDAP server : cn=a,dc=example"));
    }

    /// Sends the request and waits for a response with this tag and code.
    int codeOf(LDAPOperation& request, ber_tag_t tag, int code)
    {
        willReceive({messages.response(tag, code)});
        request.send();
        EXPECT_FALSE(request.wait(5));
        return request.result().resultCode();
    }
};

using ADelete = ChangesTest;
using ACompare = ChangesTest;
using ARename = ChangesTest;
using AModify = ChangesTest;
using ABinaryAdd = ChangesTest;

// Delete

TEST_F(ADelete, SendsItsDnAndControls)
{
    LDAPDelete request(connection, dn);
    request.controls().push_back(Control("1.2", true));

    request.send();

    EXPECT_THAT(
        openldap.calls(),
        ElementsAre("ldap_delete_ext session 'cn=a,dc=example' ['1.2' critical null] null"));
    EXPECT_EQ(request.id(), 3);
}

TEST_F(ADelete, IsCompleteWithItsResponse)
{
    LDAPDelete request(connection, dn);

    EXPECT_EQ(codeOf(request, LDAP_RES_DELETE, LDAP_NOT_ALLOWED_ON_NONLEAF), 66);
}

TEST_F(ADelete, ReportsItsOwnLines)
{
    LDAPDelete request(connection, dn);

    expectFaults(request, 31, 38, 9);
}

// Compare

TEST_F(ACompare, SendsItsValueWithAllBytesAndControls)
{
    LDAPCompare request(connection, dn, "cn", "a\0b"s);
    request.controls().push_back(Control("1.2", false, "x"));

    request.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_compare_ext session 'cn=a,dc=example' 'cn' "
                                              "'a\0b' ['1.2' 'x'] null"s));
    EXPECT_EQ(request.id(), 3);
}

TEST_F(ACompare, HasTrueFalseOrAnotherOutcome)
{
    LDAPCompare request(connection, dn, "cn", "");

    EXPECT_EQ(request.outcome(), LDAPCompare::CompareOther);
    EXPECT_EQ(codeOf(request, LDAP_RES_COMPARE, LDAP_COMPARE_TRUE), 6);
    EXPECT_EQ(request.outcome(), LDAPCompare::CompareTrue);
    EXPECT_EQ(codeOf(request, LDAP_RES_COMPARE, LDAP_COMPARE_FALSE), 5);
    EXPECT_EQ(request.outcome(), LDAPCompare::CompareFalse);
    EXPECT_EQ(codeOf(request, LDAP_RES_COMPARE, LDAP_NO_SUCH_ATTRIBUTE), 16);
    EXPECT_EQ(request.outcome(), LDAPCompare::CompareOther);
    EXPECT_EQ(codeOf(request, LDAP_RES_COMPARE, LDAP_SUCCESS), 0);
    EXPECT_EQ(request.outcome(), LDAPCompare::CompareOther);
}

TEST_F(ACompare, ReportsItsOwnLines)
{
    LDAPCompare request(connection, dn, "cn", "a");

    expectFaults(request, 61, 68, 11);
}

TEST_F(ACompare, RefusesADescriptionWithAZeroByte)
{
    LDAPCompare request(connection, dn, "c\0n"s, "a");

    EXPECT_THAT(thrownBy([&] { request.send(); }), IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST(ANullCompare, HasNoOutcome)
{
    LDAPCompare const null;

    EXPECT_THAT(thrownBy([&] { null.outcome(); }), IsNullHandle("Changes.cpp", 52));
}

// Rename

TEST_F(ARename, KeepsOrDeletesTheOldRdnBelowTheSameSuperior)
{
    LDAPRename keeping(connection, dn, "cn=b", LDAPRename::KeepOldRdn);
    LDAPRename deleting(connection, dn, "cn=b", LDAPRename::DeleteOldRdn);

    keeping.send();
    deleting.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_rename session 'cn=a,dc=example' 'cn=b' null 0 null null",
                            "ldap_rename session 'cn=a,dc=example' 'cn=b' null 1 null null"));
    EXPECT_EQ(keeping.id(), 3);
}

TEST_F(ARename, MovesTheEntryWithControls)
{
    LDAPRename request(connection, dn, "cn=b", LDAPRename::DeleteOldRdn, "ou=x");
    request.controls().push_back(Control("1.2", false));

    request.send();

    EXPECT_THAT(
        openldap.calls(),
        ElementsAre("ldap_rename session 'cn=a,dc=example' 'cn=b' 'ou=x' 1 ['1.2' null] null"));
}

TEST_F(ARename, IsCompleteWithItsResponse)
{
    LDAPRename request(connection, dn, "cn=b", LDAPRename::DeleteOldRdn);

    EXPECT_EQ(codeOf(request, LDAP_RES_MODDN, LDAP_ALREADY_EXISTS), 68);
}

TEST_F(ARename, ReportsItsOwnLines)
{
    LDAPRename request(connection, dn, "cn=b", LDAPRename::DeleteOldRdn);

    expectFaults(request, 91, 98, 10);
}

TEST_F(ARename, RefusesNamesWithAZeroByte)
{
    LDAPRename rdn(connection, dn, "cn=b\0c"s, LDAPRename::KeepOldRdn);
    LDAPRename superior(connection, dn, "cn=b", LDAPRename::KeepOldRdn, "ou=x\0y"s);

    EXPECT_THAT(thrownBy([&] { rdn.send(); }), IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(thrownBy([&] { superior.send(); }), IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

// Modify

TEST_F(AModify, SendsItsChangesInOrderWithAllBytes)
{
    LDAPModify request(connection, dn);
    request.add("cn", {"a", "b\0c"s});
    request.remove("sn", {"x"});
    request.remove("mail", {});
    request.replace("jpegPhoto", {"\0\xff"s});
    request.replace("title", {});
    request.increment("uidNumber", -5);
    request.controls().push_back(Control("1.2", true));

    request.send();

    EXPECT_THAT(
        openldap.calls(),
        ElementsAre("ldap_modify_ext session 'cn=a,dc=example' [128 'cn' ['a' 'b\0c'] 129 "
                    "'sn' ['x'] 129 'mail' [] 130 'jpegPhoto' ['\0\xff'] 130 'title' [] 131 "
                    "'uidNumber' ['-5']] ['1.2' critical null] null"s));
    EXPECT_EQ(request.id(), 3);
}

TEST_F(AModify, SharesTheAttributesThatItIsGiven)
{
    LDAPAttribute cn = attribute("cn", {"a"});
    LDAPModify request(connection, dn);
    request.add(cn);
    request.remove(attribute("sn", {"b"}));
    request.replace(attribute("userCertificate;binary", {"c"}));
    cn.value("later");

    request.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_modify_ext session 'cn=a,dc=example' [128 'cn' ['a' 'later'] 129 "
                            "'sn' ['b'] 130 'userCertificate;binary' ['c']] null null"));
}

TEST_F(AModify, SendsAnyNumberOfChangesAndValues)
{
    LDAPModify request(connection, dn);
    std::string expected;
    for (int number = 0; number < 40; ++number) {
        std::string const type = "a" + std::to_string(number);
        std::list<std::string> const values(static_cast<std::size_t>(number), "x");
        if (number % 2 == 0) {
            request.add(type, values);
        } else {
            request.add(attribute(type, values));
        }
        expected += (number == 0 ? "128 '" : " 128 '") + type + "' [";
        for (int value = 0; value < number; ++value) {
            expected += value == 0 ? "'x'" : " 'x'";
        }
        expected += ']';
    }

    request.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_modify_ext session 'cn=a,dc=example' [" +
                                              expected + "] null null"));
}

TEST_F(AModify, SendsADescriptionAsItIsGiven)
{
    LDAPModify request(connection, dn);
    request.replace(" userCertificate ;binary", {"a"});

    request.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_modify_ext session 'cn=a,dc=example' [130 ' userCertificate "
                            ";binary' ['a']] null null"));
}

TEST_F(AModify, WithoutChangesSendsAnEmptyArray)
{
    LDAPModify request(connection, dn);

    request.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_modify_ext session 'cn=a,dc=example' [] null null"));
}

TEST_F(AModify, HandsNoNullValueToOpenLDAP)
{
    bool isNull = true;
    openldap.ldap_modify_ext = [&](LDAP*, auto, LDAPMod** mods, auto, auto, auto) {
        isNull = mods[0]->mod_bvalues[0]->bv_val == nullptr;
        return LDAP_SUCCESS;
    };
    LDAPModify request(connection, dn);
    request.replace("cn", {""});
    LDAPModify shared(connection, dn);
    shared.replace(attribute("cn", {""}));

    request.send();
    EXPECT_FALSE(isNull);

    isNull = true;
    shared.send();
    EXPECT_FALSE(isNull);
}

// A leak checker sees what an earlier failure would have lost.
TEST_F(AModify, IsSentWholeOnceThereIsMemoryForIt)
{
    LDAPModify request(connection, dn);
    request.add("cn", {"a", "b\0c"s});
    request.replace("title", {});
    request.controls().push_back(Control("1.2", true, "x"));
    unsigned int failures = 0;

    for (bool isSent = false; !isSent; ++failures) {
        openldap.forgetCalls();
        FailingAllocation const failing(failures);
        try {
            request.send();
            isSent = true;
        } catch (std::bad_alloc const&) {
            EXPECT_EQ(request.id(), 0);
        }
    }

    EXPECT_GT(failures, 5U);
    EXPECT_EQ(request.id(), 3);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_modify_ext session 'cn=a,dc=example' [128 'cn' ['a' 'b\0c'] 130 "
                            "'title' []] ['1.2' critical 'x'] null"s));
}

TEST_F(AModify, IsCompleteWithItsResponse)
{
    LDAPModify request(connection, dn);

    EXPECT_EQ(codeOf(request, LDAP_RES_MODIFY, LDAP_TYPE_OR_VALUE_EXISTS), 20);
}

TEST_F(AModify, ReportsItsOwnLines)
{
    LDAPModify request(connection, dn);

    expectFaults(request, 158, 165, 8);
}

TEST_F(AModify, LetsTheFailureOfANullAttributePassUnchanged)
{
    LDAPModify noAttribute(connection, dn);
    noAttribute.add("cn", {"a"});
    noAttribute.add(LDAPAttribute());
    LDAPModify noType(connection, dn);
    noType.add(LDAPAttribute(LDAPAttributeType()));

    EXPECT_THAT(thrownBy([&] { noAttribute.send(); }), IsFault("Attribute.cpp", 247, 1, 0));
    EXPECT_THAT(thrownBy([&] { noType.send(); }), IsFault("Attribute.cpp", 41, 1, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AModify, RefusesADescriptionWithAZeroByte)
{
    LDAPModify request(connection, dn);
    request.add("c\0n"s, {"a"});

    EXPECT_THAT(thrownBy([&] { request.send(); }), IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST(ANullModify, ThrowsFromEachOfItsOwnOperationsWithItsLine)
{
    LDAPModify null;

    EXPECT_THAT(thrownBy([&] { null.add("cn", {}); }), IsNullHandle("Changes.cpp", 112));
    EXPECT_THAT(thrownBy([&] { null.remove("cn", {}); }), IsNullHandle("Changes.cpp", 121));
    EXPECT_THAT(thrownBy([&] { null.replace("cn", {}); }), IsNullHandle("Changes.cpp", 130));
    EXPECT_THAT(thrownBy([&] { null.increment("cn", 1); }), IsNullHandle("Changes.cpp", 139));
}

// Binary add

TEST_F(ABinaryAdd, SendsEveryValueWithAllItsBytes)
{
    LDAPBinaryAdd request(connection, dn);
    request.attributes({attribute("cn", {"a"}), attribute("jpegPhoto", {"b\0c"s, ""})});
    request.controls().push_back(Control("1.2", true));

    request.send();

    EXPECT_THAT(
        openldap.calls(),
        ElementsAre("ldap_add_ext session 'cn=a,dc=example' [128 'cn' ['a'] 128 'jpegPhoto' "
                    "['b\0c' '']] ['1.2' critical null] null"s));
    EXPECT_EQ(request.id(), 3);
}

TEST_F(ABinaryAdd, AppendsListsAndSharesContainersLikeAnAdd)
{
    LDAPBinaryAdd request(connection, dn);
    request.attributes({attribute("sn", {"dropped"})});
    LDAPAttributeContainer container;
    request.attributes(container);
    container.add(attribute("cn", {"a"}));
    request.attributes({attribute("sn", {"b"})});
    request.name() = "cn=b";

    request.send();

    EXPECT_THAT(
        openldap.calls(),
        ElementsAre("ldap_add_ext session 'cn=b' [128 'cn' ['a'] 128 'sn' ['b']] null null"));
    EXPECT_EQ(&request.attributes().attributes(), &container.attributes());
}

TEST_F(ABinaryAdd, IsCompleteWithItsResponse)
{
    LDAPBinaryAdd request(connection, dn);

    EXPECT_EQ(codeOf(request, LDAP_RES_ADD, LDAP_ALREADY_EXISTS), 68);
}

TEST_F(ABinaryAdd, ReportsItsOwnLines)
{
    LDAPBinaryAdd request(connection, dn);

    expectFaults(request, 228, 235, 7);
}

TEST_F(ABinaryAdd, LetsTheFailureOfANullAttributePassUnchanged)
{
    LDAPBinaryAdd request(connection, dn);
    request.attributes({attribute("cn", {"a"}), LDAPAttribute()});

    EXPECT_THAT(thrownBy([&] { request.send(); }), IsFault("Attribute.cpp", 247, 1, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST(ANullBinaryAdd, ThrowsFromEachOfItsOwnOperationsWithItsLine)
{
    LDAPBinaryAdd null;
    LDAPBinaryAdd const& reader = null;

    EXPECT_THAT(thrownBy([&] { null.name(); }), IsNullHandle("Changes.cpp", 182));
    EXPECT_THAT(thrownBy([&] { null.attributes(std::list<LDAPAttribute>()); }),
                IsNullHandle("Changes.cpp", 191));
    EXPECT_THAT(thrownBy([&] { null.attributes(LDAPAttributeContainer()); }),
                IsNullHandle("Changes.cpp", 200));
    EXPECT_THAT(thrownBy([&] { reader.attributes(); }), IsNullHandle("Changes.cpp", 209));
}

// The base class can be assigned: the body may then be of another request.
TEST_F(ABinaryAdd, ThrowsBadCastForTheBodyOfAnotherRequest)
{
    LDAPBinaryAdd request(connection, dn);
    LDAPDelete const other(connection, dn);
    static_cast<LDAPRequest&>(request) = other;

    EXPECT_THROW(request.name(), std::bad_cast);
}

} // namespace
} // namespace SolvaneTest

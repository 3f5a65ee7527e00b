// Extended operations: the exact arguments, their values, the response, and what becomes of passwords.
#include "CallTest.h"

#include "LdapMessages.h"

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using Solvane::LDAPConnection;
using Solvane::LDAPExtended;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Control = Solvane::LDAPOperation::Control;

class ExtendedTest : public ConnectedTest {
protected:
    ExtendedTest()
    {
        openldap.ldap_extended_operation = [](auto, auto, auto, auto, auto, int* messageId) {
            *messageId = 3;
            return LDAP_SUCCESS;
        };
    }

    /// A successful response with these elements behind the result.
    LDAPMessage* response(std::string const& more = "", int code = LDAP_SUCCESS)
    {
        return messages.operation(LDAP_RES_EXTENDED, "\x0a\x01"s + static_cast<char>(code) +
                                                         "\x04\x00\x04\x00"s + more);
    }
    static std::string oid(std::string const& text)
    {
        return berElement(LDAP_TAG_EXOP_RES_OID, text);
    }
    static std::string value(std::string const& bytes)
    {
        return berElement(static_cast<unsigned char>(LDAP_TAG_EXOP_RES_VALUE), bytes);
    }

    /// The request, after it received this response.
    LDAPExtended answered(LDAPExtended request, LDAPMessage* message)
    {
        willReceive({message});
        request.send();
        EXPECT_FALSE(request.wait(5));
        return request;
    }
};

using AnExtendedOperation = ExtendedTest;
using WhoAmI = ExtendedTest;
using AChangeOfPassword = ExtendedTest;
using ACancelOperation = ExtendedTest;

TEST_F(AnExtendedOperation, SendsItsOidValueAndControls)
{
    LDAPExtended bare(connection, "1.2.3");
    LDAPExtended empty(connection, "1.2.4", "");
    LDAPExtended full(connection, "1.2.5", "a\0b"s);
    full.controls().push_back(Control("1.9", true));

    bare.send();
    empty.send();
    full.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_extended_operation session '1.2.3' null null null",
                            "ldap_extended_operation session '1.2.4' '' null null",
                            "ldap_extended_operation session '1.2.5' 'a\0b' ['1.9' critical null] "
                            "null"s));
    EXPECT_EQ(full.id(), 3);
}

TEST_F(AnExtendedOperation, CanBeSentAgain)
{
    LDAPExtended request = answered(LDAPExtended(connection, "1.2.3", "x"), response(value("y")));
    openldap.forgetCalls();

    request.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_extended_operation session '1.2.3' 'x' null null"));
    EXPECT_FALSE(request.hasResponseValue());
    EXPECT_EQ(request.responseValue(), "");
}

TEST_F(AnExtendedOperation, KeepsOidAndValueOfItsResponse)
{
    LDAPExtended const request = answered(LDAPExtended(connection, "1.2.3"),
                                          response(oid("1.2.4") + value("a\0b"s), LDAP_BUSY));

    EXPECT_EQ(request.result().resultType(), 10);
    EXPECT_EQ(request.result().resultCode(), 51);
    EXPECT_EQ(request.responseOid(), "1.2.4");
    EXPECT_TRUE(request.hasResponseValue());
    EXPECT_EQ(request.responseValue(), "a\0b"s);
    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_extended_operation session '1.2.3' null null null",
                            "ldap_result session 3 0 5s 0us",
                            "ldap_parse_extended_result session message 0", "ber_bvfree '\0\0\0'"s,
                            "ldap_memfree '1.2.4'", "ldap_parse_result session message unknown 0",
                            "ldap_msgfree message"));
}

TEST_F(AnExtendedOperation, DistinguishesAnEmptyValueFromNone)
{
    EXPECT_TRUE(answered(LDAPExtended(connection, "1.2"), response(value(""))).hasResponseValue());
    LDAPExtended const without = answered(LDAPExtended(connection, "1.2"), response());

    EXPECT_FALSE(without.hasResponseValue());
    EXPECT_EQ(without.responseOid(), "");
    EXPECT_EQ(without.responseValue(), "");
}

TEST_F(AnExtendedOperation, ReportsAResponseThatCannotBeParsed)
{
    openldap.ldap_parse_extended_result = [](auto...) { return LDAP_DECODING_ERROR; };
    LDAPExtended request(connection, "1.2.3");
    willReceive({response()});
    request.send();

    EXPECT_THAT(thrownBy([&] { request.wait(5); }),
                IsFault("Operation.cpp", 112, 1, 6, "Decoding error : 1.2.3"));
    EXPECT_TRUE(request.result().isNull());
}

TEST_F(AnExtendedOperation, ReportsItsOwnLines)
{
    LDAPExtended request(connection, "1.2.3");
    request.send();
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };

    EXPECT_THAT(thrownBy([&] { request.wait(5); }),
                IsFault("Extended.cpp", 91, 4, 12, "Can't contact LDAP server : 1.2.3"));
    connection.unbind();
    EXPECT_THAT(thrownBy([&] { request.send(); }),
                IsFault("Extended.cpp", 84, 4, 12, "Can't contact LDAP server : 1.2.3"));
}

// OpenLDAP would end the process.
TEST_F(AnExtendedOperation, RefusesAnEmptyOidAndOneWithAZeroByte)
{
    LDAPExtended empty(connection, "");
    LDAPExtended cut(connection, "1.2\0.3"s);

    EXPECT_THAT(thrownBy([&] { empty.send(); }),
                IsFault("Extended.cpp", 75, 2, 0, "The object identifier is empty"));
    EXPECT_THAT(thrownBy([&] { cut.send(); }), IsFault("Operation.cpp", 70, 2, 0));
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST(ANullExtendedOperation, ThrowsFromEachOfItsOwnOperationsWithItsLine)
{
    LDAPExtended const null;

    EXPECT_THAT(thrownBy([&] { null.responseOid(); }), IsNullHandle("Extended.cpp", 33));
    EXPECT_THAT(thrownBy([&] { null.hasResponseValue(); }), IsNullHandle("Extended.cpp", 42));
    EXPECT_THAT(thrownBy([&] { null.responseValue(); }), IsNullHandle("Extended.cpp", 51));
    EXPECT_THAT(thrownBy([&] { null.generatedPassword(); }), IsNullHandle("Extended.cpp", 60));
}

// RFC 4532

TEST_F(WhoAmI, SendsNoValueAndGetsAnIdentity)
{
    LDAPExtended const request =
        answered(LDAPExtended::whoAmI(connection), response(value("dn:cn=a")));

    EXPECT_EQ(request.responseValue(), "dn:cn=a");
    EXPECT_EQ(openldap.calls().front(),
              "ldap_extended_operation session '1.3.6.1.4.1.4203.1.11.3' null null null");
}

// RFC 3062

constexpr char changePassword[] = "ldap_extended_operation session '1.3.6.1.4.1.4203.1.11.1' ";

TEST_F(AChangeOfPassword, SendsUserAndPasswordsWithAllTheirBytes)
{
    LDAPExtended request = LDAPExtended::modifyPassword(connection, "cn=a", "old", "n\0w"s);
    openldap.forgetCalls();

    request.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre(changePassword + "'\x30\x10\x80\x04"
                                             "cn=a\x81\x03old\x82\x03n\0w' null null"s));
}

TEST_F(AChangeOfPassword, SendsOnlyWhatIsGiven)
{
    LDAPExtended own = LDAPExtended::modifyPassword(connection, "", "", "new");
    LDAPExtended generated = LDAPExtended::generatePassword(connection, "cn=a", "old");
    LDAPExtended nothing = LDAPExtended::generatePassword(connection, "", "");

    openldap.forgetCalls();
    own.send();
    generated.send();
    nothing.send();

    EXPECT_THAT(openldap.calls(), ElementsAre(changePassword + "'\x30\x05\x82\x03new' null null"s,
                                              changePassword + "'\x30\x0b\x80\x04"
                                                               "cn=a\x81\x03old' null null"s,
                                              changePassword + "'\x30\0' null null"s));
}

// It would ask the server to generate one.
TEST_F(AChangeOfPassword, RefusesAnEmptyNewPassword)
{
    EXPECT_THAT(thrownBy([&] { LDAPExtended::modifyPassword(connection, "cn=a", "old", ""); }),
                IsFault("Extended.cpp", 108, 2, 0, "The new password is empty"));
}

TEST_F(AChangeOfPassword, IsSentOnceAndNotWithWipedPasswords)
{
    LDAPExtended request = LDAPExtended::modifyPassword(connection, "cn=a", "old", "new");
    request.send();
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { request.send(); }),
                IsFault("Extended.cpp", 126, 2, 0, "The passwords were wiped when they were sent"));
}

TEST_F(AChangeOfPassword, CanBeSentAgainWhenOpenLDAPDidNotTakeIt)
{
    LDAPExtended request = LDAPExtended::modifyPassword(connection, "", "", "new");
    auto const taking = openldap.ldap_extended_operation;
    openldap.ldap_extended_operation = [](auto...) { return LDAP_SERVER_DOWN; };
    thrownBy([&] { request.send(); });
    openldap.ldap_extended_operation = taking;
    openldap.forgetCalls();

    request.send();

    EXPECT_THAT(openldap.calls(), ElementsAre(changePassword + "'\x30\x05\x82\x03new' null null"s));
}

TEST_F(AChangeOfPassword, WipesItsPasswordsWhenOpenLDAPHasTakenThem)
{
    char const* bytes = nullptr;
    std::string const secret(100, 's');
    openldap.ldap_extended_operation = [&](LDAP*, auto, berval* value, auto, auto, int* id) {
        bytes = value->bv_val;
        EXPECT_THAT(std::string(value->bv_val, value->bv_len), HasSubstr(secret));
        *id = 3;
        return LDAP_SUCCESS;
    };
    LDAPExtended request = LDAPExtended::modifyPassword(connection, "", "", secret);

    request.send();

    // The memory is still the request's.
    EXPECT_EQ(std::string(bytes + 4, secret.size()), std::string(secret.size(), '\0'));
}

TEST_F(AChangeOfPassword, ShowsNoPasswordInItsFaultsAndDebugLines)
{
    DebugLines const lines(0xffffffff);
    LDAPExtended request = LDAPExtended::modifyPassword(connection, "cn=a", "s3cret", "n3wer");
    openldap.ldap_extended_operation = [](auto...) { return LDAP_SERVER_DOWN; };

    auto const refused = thrownBy([&] { request.send(); });
    openldap.ldap_extended_operation = [](auto...) { return LDAP_SUCCESS; };
    openldap.ldap_result = [](auto...) { return LDAP_SERVER_DOWN; };
    request.send();
    auto const failed = thrownBy([&] { request.wait(1); });

    EXPECT_THAT(refused, IsFault("Extended.cpp", 84, 4, 12,
                                 "Can't contact LDAP server : 1.3.6.1.4.1.4203.1.11.1"));
    EXPECT_THAT(failed, IsFault("Extended.cpp", 91, 4, 12,
                                "Can't contact LDAP server : 1.3.6.1.4.1.4203.1.11.1"));
    EXPECT_EQ(lines.all().size(), 2U);
    EXPECT_THAT(lines.all(), Not(Contains(HasSubstr("s3cret"))));
    EXPECT_THAT(lines.all(), Not(Contains(HasSubstr("n3wer"))));
}

TEST_F(AChangeOfPassword, HasTheGeneratedPassword)
{
    auto const passwordIn = [&](std::string const& more) {
        return answered(LDAPExtended::generatePassword(connection, "", ""), response(more))
            .generatedPassword();
    };

    EXPECT_EQ(passwordIn(value("\x30\x05\x80\x03g\0n"s)), "g\0n"s);
    EXPECT_EQ(passwordIn(value("\x30\0"s)), "");
    EXPECT_EQ(passwordIn(""), "");
}

TEST_F(AChangeOfPassword, ReportsAMalformedGeneratedPassword)
{
    for (std::string const& bytes :
         {"x"s, "\x30\x05\x80\x03g"s, "\x30\x03\x81\x01g"s, "\x30\x03\x80\x01gx"s,
          "\x30\x06\x80\x01g\x80\x01h"s, "\x31\0"s}) {
        LDAPExtended const request =
            answered(LDAPExtended::generatePassword(connection, "", ""), response(value(bytes)));

        EXPECT_THAT(
            thrownBy([&] { request.generatedPassword(); }),
            IsFault("Extended.cpp", 135, 1, 6, "Malformed response to a change of password"));
    }
}

// RFC 3909

TEST_F(ACancelOperation, SendsTheIdOfTheOtherRequest)
{
    LDAPExtended small = LDAPExtended::cancel(connection, 5);
    LDAPExtended large = LDAPExtended::cancel(connection, 2147483647);

    openldap.forgetCalls();
    small.send();
    large.send();

    EXPECT_THAT(
        openldap.calls(),
        ElementsAre(
            "ldap_extended_operation session '1.3.6.1.1.8' '\x30\x03\x02\x01\x05' null null",
            "ldap_extended_operation session '1.3.6.1.1.8' "
            "'\x30\x06\x02\x04\x7f\xff\xff\xff' null null"));
}

TEST_F(ACancelOperation, RefusesTheIdOfARequestThatIsNotInFlight)
{
    for (int const id : {0, -1}) {
        EXPECT_THAT(thrownBy([&] { LDAPExtended::cancel(connection, id); }),
                    IsFault("Extended.cpp", 117, 2, 0, "The request to cancel is not in flight"));
    }
}

TEST_F(ACancelOperation, CanItselfBeAbandoned)
{
    openldap.ldap_abandon_ext = [](auto...) { return LDAP_SUCCESS; };
    LDAPExtended request = LDAPExtended::cancel(connection, 5);
    request.send();

    request.cancel();

    EXPECT_EQ(openldap.calls().back(), "ldap_abandon_ext session 3 null null");
}

} // namespace
} // namespace SolvaneTest

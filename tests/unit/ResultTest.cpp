// Results: the effect of each kind of message on a result, and the memory freed on the way.
#include "CallTest.h"

namespace SolvaneTest {
namespace {

using Solvane::LDAPConnection;
using Solvane::LDAPMessageBuffer;
using Solvane::LDAPResult;
using Solvane::LDAPResultImpl;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class AResult : public CallTest {
protected:
    AResult() : result(messages.session()) { openldap.name(messages.session(), "session"); }

    /// Parses a message and gives it back.
    void parse(LDAPMessage* message)
    {
        openldap.name(message, "message");
        LDAPMessageBuffer owner;
        *owner.address() = message;
        result.parseMessage(owner);
    }

    LDAPResultImpl result;
};

using AFinalResponse = AResult;
using ADamagedResponse = AResult;
using AReferral = AResult;

TEST_F(AResult, IsUnchangedByAnEmptyOwner)
{
    parse(messages.response(LDAP_RES_COMPARE, LDAP_NO_SUCH_OBJECT, "dc=a", "text"));
    openldap.forgetCalls();
    LDAPMessageBuffer empty;

    result.parseMessage(empty);

    EXPECT_EQ(result.resultType(), 9);
    EXPECT_EQ(result.resultCode(), 32);
    EXPECT_EQ(result.matchedDN(), "dc=a");
    EXPECT_EQ(result.errorMessage(), "text");
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

struct ResponseType {
    ber_tag_t tag;
    int type;
};

void PrintTo(ResponseType const& tested, std::ostream* out) { *out << std::hex << tested.tag; }

class EachFinalResponse : public AResult, public testing::WithParamInterface<ResponseType> {};

TEST_P(EachFinalResponse, HasItsTypeNumber)
{
    parse(messages.response(GetParam().tag, LDAP_OTHER, "dc=a", "text"));

    EXPECT_EQ(result.resultType(), GetParam().type);
    EXPECT_EQ(result.resultCode(), 80);
    EXPECT_EQ(result.matchedDN(), "dc=a");
    EXPECT_EQ(result.errorMessage(), "text");
}

INSTANTIATE_TEST_SUITE_P(Of, EachFinalResponse,
                         testing::Values(ResponseType{0x61, 1}, ResponseType{0x65, 4},
                                         ResponseType{0x67, 5}, ResponseType{0x69, 6},
                                         ResponseType{0x6b, 7}, ResponseType{0x6d, 8},
                                         ResponseType{0x6f, 9}, ResponseType{0x78, 10}));

TEST_F(AResult, HasTypeTwoAfterAnEntryAndThreeAfterAReference)
{
    parse(messages.entry("cn=a"));
    EXPECT_EQ(result.resultType(), 2);

    parse(messages.reference({"ldap://b/"}));
    EXPECT_EQ(result.resultType(), 3);
}

TEST_F(AFinalResponse, IsReadWithTheseCallsAndFreedByItsOwnerAlone)
{
    parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS));

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_msgtype message", "ldap_parse_result session message null 0",
                            "ldap_msgfree message"));
}

TEST_F(AFinalResponse, OffersOpenLDAPEmptyPlacesForItsTexts)
{
    bool areEmpty = false;
    openldap.ldap_parse_result = [&](LDAP*, LDAPMessage*, int*, char** matched, char** text,
                                     char*** referrals, LDAPControl***, int) {
        areEmpty = *matched == nullptr && *text == nullptr && *referrals == nullptr;
        return LDAP_SUCCESS;
    };

    parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS));

    EXPECT_TRUE(areEmpty);
}

TEST_F(AFinalResponse, GivesItsTextsBackOnce)
{
    parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_NO_SUCH_OBJECT, "dc=a", "text"));

    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'dc=a'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'text'").Times(1));
    EXPECT_EQ(openldap.calls().size(), 5U);
}

TEST_F(AFinalResponse, WithoutTextGetsOpenLDAPsTextForItsCodeUnlessItSucceeds)
{
    parse(messages.response(LDAP_RES_BIND, LDAP_SUCCESS));
    EXPECT_EQ(result.errorMessage(), "");

    parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_NO_SUCH_OBJECT));
    EXPECT_EQ(result.errorMessage(), "No such object");
    EXPECT_EQ(result.resultType(), 4);
}

TEST_F(AFinalResponse, ThatSucceedsKeepsTheServersText)
{
    parse(messages.response(LDAP_RES_BIND, LDAP_SUCCESS, "", "welcome"));

    EXPECT_EQ(result.errorMessage(), "welcome");
}

TEST_F(AFinalResponse, OverwritesTypeCodeAndTextsOfAnEarlierOne)
{
    parse(messages.response(LDAP_RES_BIND, LDAP_OTHER, "dc=a", "first"));

    parse(messages.response(LDAP_RES_ADD, LDAP_NO_SUCH_OBJECT, "dc=b", "second"));

    EXPECT_EQ(result.resultType(), 6);
    EXPECT_EQ(result.resultCode(), 32);
    EXPECT_EQ(result.matchedDN(), "dc=b");
    EXPECT_EQ(result.errorMessage(), "second");
}

TEST_F(AFinalResponse, WithoutTextsLeavesThoseOfAnEarlierOne)
{
    parse(messages.response(LDAP_RES_BIND, LDAP_OTHER, "dc=a", "first"));

    parse(messages.response(LDAP_RES_ADD, LDAP_NO_SUCH_OBJECT));

    EXPECT_EQ(result.matchedDN(), "dc=a");
    EXPECT_EQ(result.errorMessage(), "first");
}

TEST_F(AFinalResponse, WithAnEmptyTextFromOpenLDAPGetsTheTextForItsCode)
{
    openldap.ldap_parse_result = [](LDAP*, LDAPMessage*, int* code, char**, char** text, char***,
                                    LDAPControl***, int) {
        *code = LDAP_BUSY;
        *text = ber_strdup("");
        return LDAP_SUCCESS;
    };

    parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS));

    EXPECT_EQ(result.errorMessage(), "Server is busy");
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree ''").Times(1));
}

TEST_F(AReferral, IsRefusedWithEveryUriAndATrailingBlankAndLeavesAllInTheResult)
{
    auto const thrown = thrownBy([&] {
        parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_REFERRAL, "dc=a", "elsewhere",
                                {"ldap://a/", "ldap://b/"}));
    });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 624, 4, 5,
                                "Can't handle referrals. Got referral to ldap://a/ ldap://b/ "));
    EXPECT_FALSE(thrown.hasCause());
    EXPECT_THAT(result.referrals(), ElementsAre("ldap://a/", "ldap://b/"));
    EXPECT_EQ(result.resultType(), 4);
    EXPECT_EQ(result.resultCode(), 10);
    EXPECT_EQ(result.matchedDN(), "dc=a");
    EXPECT_EQ(result.errorMessage(), "elsewhere");
    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free ['ldap://a/' 'ldap://b/']").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'dc=a'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'elsewhere'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
    EXPECT_EQ(openldap.calls().size(), 6U);
}

TEST_F(AReferral, NamesTheUrisOfEarlierOnesToo)
{
    thrownBy(
        [&] { parse(messages.response(LDAP_RES_BIND, LDAP_REFERRAL, "", "", {"ldap://a/"})); });

    auto const thrown = thrownBy(
        [&] { parse(messages.response(LDAP_RES_BIND, LDAP_REFERRAL, "", "", {"ldap://b/"})); });

    EXPECT_EQ(thrown.stringParameter(),
              "Can't handle referrals. Got referral to ldap://a/ ldap://b/ ");
    EXPECT_THAT(result.referrals(), ElementsAre("ldap://a/", "ldap://b/"));
}

TEST_F(AReferral, IsRefusedWhateverItsCode)
{
    openldap.ldap_parse_result = [](LDAP*, LDAPMessage*, int* code, char**, char**,
                                    char*** referrals, LDAPControl***, int) {
        *code = LDAP_SUCCESS;
        *referrals = newTexts({"ldap://a/"});
        return LDAP_SUCCESS;
    };

    EXPECT_THAT(thrownBy([&] { parse(messages.response(LDAP_RES_BIND, LDAP_SUCCESS)); }),
                IsFault("Result.cpp", 624, 4, 5));
}

TEST_F(AResult, RefusesAnIntermediateResponseAndStaysAsItWas)
{
    parse(messages.response(LDAP_RES_COMPARE, LDAP_COMPARE_TRUE));
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { parse(messages.operation(LDAP_RES_INTERMEDIATE, "")); }),
                IsFault("Result.cpp", 541, 2, 6, ""));
    EXPECT_EQ(result.resultType(), 9);
    EXPECT_EQ(result.resultCode(), 6);
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_msgtype message", "ldap_msgfree message"));
}

TEST_F(AResult, RefusesAMessageWithoutAType)
{
    openldap.ldap_msgtype = [](auto...) { return -1; };

    EXPECT_THAT(thrownBy([&] { parse(messages.entry("cn=a")); }), IsFault("Result.cpp", 541, 2, 6));
    EXPECT_EQ(result.resultType(), 0);
}

TEST_F(ADamagedResponse, IsReportedAndLeavesOnlyItsTypeInTheResult)
{
    openldap.ldap_parse_result = [](LDAP*, LDAPMessage*, int* code, char** matched, char** text,
                                    char*** referrals, LDAPControl***, int) {
        *code = LDAP_BUSY;
        *matched = ber_strdup("dc=a");
        *text = ber_strdup("text");
        *referrals = newTexts({"ldap://a/"});
        return LDAP_DECODING_ERROR;
    };

    EXPECT_THAT(thrownBy([&] { parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_OTHER)); }),
                IsFault("Result.cpp", 577, 1, 6, "Decoding error"));
    EXPECT_EQ(result.resultType(), 4);
    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_EQ(result.matchedDN(), "");
    EXPECT_EQ(result.errorMessage(), "");
    EXPECT_THAT(result.referrals(), IsEmpty());
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'dc=a'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'text'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free ['ldap://a/']").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(AResult, WrapsAForeignExceptionAsTheCauseAndFreesTheMessageOnce)
{
    openldap.ldap_parse_result = throwForeign<>;

    auto const thrown =
        thrownBy([&] { parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_OTHER)); });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 633, 4, 6, ""));
    ASSERT_TRUE(thrown.hasCause());
    EXPECT_EQ(thrown.cause().name(), "foreign");
    EXPECT_EQ(thrown.cause().code(), 9);
    EXPECT_THAT(openldap.calls(), Contains("ldap_msgfree message").Times(1));
}

TEST_F(AResult, LetsAnLDAPExceptionPassUnchanged)
{
    openldap.ldap_parse_result = [](auto...) -> int {
        throw Solvane::LDAPException("LDAPException", 4, "Elsewhere.cpp", 5, 3);
    };

    auto const thrown =
        thrownBy([&] { parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_OTHER)); });

    EXPECT_THAT(thrown, IsFault("Elsewhere.cpp", 5, 4, 3));
    EXPECT_FALSE(thrown.hasCause());
}

TEST_F(AResult, LetsAnExceptionOfTheStandardLibraryPass)
{
    openldap.ldap_parse_result = [](auto...) -> int { throw std::bad_alloc(); };

    EXPECT_THROW(parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_OTHER)), std::bad_alloc);
}

TEST_F(AResult, IsNeverLogged)
{
    DebugLines const lines(0xffffffff);

    parse(messages.entry("cn=a"));
    parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_OTHER));
    thrownBy([&] { parse(messages.operation(LDAP_RES_INTERMEDIATE, "")); });
    thrownBy([&] { parse(messages.damagedReference()); });

    EXPECT_THAT(lines.all(), IsEmpty());
}

// OpenLDAP ends the process when it is handed a null session.
TEST_F(AResult, WithoutASessionReportsEachMessageInsteadOfHandingItToOpenLDAP)
{
    auto const noSession = IsFault("Result.cpp", 577, 1, 6, "Can't contact LDAP server");
    LDAPResultImpl withoutSession(nullptr);
    for (LDAPMessage* const sent : {messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS),
                                    messages.reference({"ldap://a/"}), messages.entry("cn=a")}) {
        LDAPMessageBuffer message;
        *message.address() = sent;

        EXPECT_THAT(thrownBy([&] { withoutSession.parseMessage(message); }), noSession);
        EXPECT_THAT(thrownBy([&] { withoutSession.parseListResultEntry(message); }), noSession);
        EXPECT_THAT(thrownBy([&] { withoutSession.parseSearchReference(message); }), noSession);
    }
    EXPECT_EQ(withoutSession.resultType(), 2);
}

class AResultHandle : public ConnectedTest {};

TEST_F(AResultHandle, OfAConnectionParsesWithItsSession)
{
    LDAPResult const result{connection};
    LDAPMessageBuffer message;
    *message.address() = messages.response(LDAP_RES_BIND, LDAP_SUCCESS);
    openldap.name(message.get(), "message");

    result.impl()->parseMessage(message);

    EXPECT_THAT(openldap.calls(), Contains("ldap_parse_result session message null 0"));
}

TEST_F(AResultHandle, OfAnUnboundConnectionHasNoSession)
{
    connection.unbind();
    LDAPResult const result{connection};
    LDAPMessageBuffer message;
    *message.address() = messages.response(LDAP_RES_BIND, LDAP_SUCCESS);

    EXPECT_THAT(thrownBy([&] { result.impl()->parseMessage(message); }),
                IsFault("Result.cpp", 577, 1, 6));
    EXPECT_THAT(openldap.calls(), Not(Contains(StartsWith("ldap_parse_result"))));
}

TEST_F(AResultHandle, SharesWhatIsParsedWithItsCopies)
{
    LDAPResult const result{connection};
    LDAPResult const copy(result); // NOLINT(performance-unnecessary-copy-initialization)
    LDAPMessageBuffer message;
    *message.address() = messages.response(LDAP_RES_BIND, LDAP_OTHER, "dc=a", "text");

    result.impl()->parseMessage(message);

    EXPECT_EQ(copy.impl(), result.impl());
    EXPECT_EQ(copy.resultType(), 1);
    EXPECT_EQ(copy.resultCode(), 80);
    EXPECT_EQ(copy.matchedDN(), "dc=a");
    EXPECT_EQ(copy.errorMessage(), "text");
    EXPECT_EQ(&copy.referrals(), &result.impl()->referrals());
    EXPECT_EQ(&copy.searchResultEntries(), &result.impl()->searchResultEntries());
    EXPECT_EQ(&copy.searchReferrals(), &result.impl()->searchReferrals());
}

} // namespace
} // namespace SolvaneTest

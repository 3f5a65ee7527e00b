// Search entries and continuation references: how messages become entries, call by call.
#include "CallTest.h"

namespace SolvaneTest {
namespace {

using Solvane::LDAPAttribute;
using Solvane::LDAPMessageBuffer;
using Solvane::LDAPResultImpl;
using Solvane::LDAPSearchResultEntry;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class Parsing : public CallTest {
protected:
    Parsing() : result(messages.session()) { openldap.name(messages.session(), "session"); }

    LDAPMessage* take(LDAPMessage* message)
    {
        openldap.name(message, "message");
        chain.free();
        *chain.address() = message;
        openldap.forgetCalls();
        return message;
    }
    void parse(LDAPMessage* message)
    {
        take(message);
        result.parseListResultEntry(chain);
    }

    LDAPSearchResultEntry const& firstEntry() const { return result.searchResultEntries().front(); }
    LDAPAttribute const& firstAttribute() const
    {
        return firstEntry().attributes().attributes().front();
    }
    std::vector<std::string> entryNames() const
    {
        std::vector<std::string> names;
        for (LDAPSearchResultEntry const& entry : result.searchResultEntries()) {
            names.push_back(entry.entryName());
        }
        return names;
    }

    LDAPResultImpl result;
    LDAPMessageBuffer chain;
};

using AnEntry = Parsing;
using AChain = Parsing;
using AContinuationReference = Parsing;
using AnEntryThatFails = Parsing;

TEST_F(AnEntry, IsReadWithTheseCallsInThisOrder)
{
    parse(messages.entry("cn=a", {{"cn", {"a", "b"}}, {"mail", {"a@b"}}}));

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_count_messages session message",
                            "ldap_first_message session message", "ldap_msgtype message",
                            "ldap_get_dn session message", "ldap_first_attribute session message",
                            "ldap_get_values_len session message 'cn'", "ldap_memfree 'cn'",
                            "ldap_next_attribute session message position",
                            "ldap_value_free_len ['a' 'b']",
                            "ldap_get_values_len session message 'mail'", "ldap_memfree 'mail'",
                            "ldap_next_attribute session message position",
                            "ldap_value_free_len ['a@b']", "ldap_next_message session message",
                            "ber_free position 0", "ldap_memfree 'cn=a'"));
}

TEST_F(AnEntry, GivesEachObjectBackOnce)
{
    parse(messages.entry("cn=a", {{"cn", {"a"}}}));

    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free_len ['a']").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains(testing::StartsWith("ldap_msgfree")).Times(0));
}

TEST_F(AnEntry, KeepsDnAndAttributesInTheServersOrder)
{
    parse(messages.entry("cn=a", {{"sn", {"s"}}, {"cn", {"a", "b"}}, {"mail", {"m"}}}));

    EXPECT_EQ(firstEntry().entryName(), "cn=a");
    std::vector<std::string> types;
    for (LDAPAttribute const& attribute : firstEntry().attributes().attributes()) {
        types.push_back(attribute.type().asString());
    }
    EXPECT_THAT(types, ElementsAre("sn", "cn", "mail"));
}

TEST_F(AnEntry, WithoutAttributesHasAnEmptyContainer)
{
    parse(messages.entry("cn=a"));

    ASSERT_EQ(result.searchResultEntries().size(), 1U);
    EXPECT_TRUE(firstEntry().attributes().empty());
}

TEST_F(AnEntry, WithABinaryAttributeKeepsTheOptionAndTheBytes)
{
    parse(messages.entry("cn=a", {{"userCertificate;binary", {std::string("\0\1", 2), "b"}}}));

    EXPECT_TRUE(firstAttribute().type().isBinary());
    EXPECT_EQ(firstAttribute().type().type(), "userCertificate");
    ASSERT_EQ(firstAttribute().binaryValue().size(), 2U);
    Solvane::Buffer const& value = firstAttribute().binaryValue().front();
    ASSERT_EQ(value.length(), 2U);
    EXPECT_EQ(value.data()[0], 0);
    EXPECT_EQ(value.data()[1], 1);
}

TEST_F(AnEntry, WithATextAttributeGivesItsValuesAsStrings)
{
    parse(messages.entry("cn=a", {{"cn", {"a", "b"}}}));

    EXPECT_FALSE(firstAttribute().type().isBinary());
    EXPECT_THAT(firstAttribute().value(), ElementsAre("a", "b"));
}

TEST_F(AnEntry, WithAnAttributeWithoutValuesKeepsTheAttribute)
{
    parse(messages.entry("cn=a", {{"cn", {}}}));

    ASSERT_FALSE(firstEntry().attributes().empty());
    EXPECT_THAT(firstAttribute().value(), IsEmpty());
}

TEST_F(AnEntry, KeepsAnAttributeWhoseValuesOpenLDAPDoesNotGive)
{
    openldap.ldap_get_values_len = [](auto...) { return nullptr; };

    parse(messages.entry("cn=a", {{"cn", {"a"}}}));

    EXPECT_THAT(firstAttribute().value(), IsEmpty());
    EXPECT_THAT(openldap.calls(), Contains(testing::StartsWith("ldap_value_free")).Times(0));
}

TEST_F(AnEntry, WithoutADnHasAnEmptyOne)
{
    openldap.ldap_get_dn = [](auto...) { return nullptr; };

    parse(messages.entry("cn=a", {{"cn", {"a"}}}));

    EXPECT_EQ(firstEntry().entryName(), "");
    EXPECT_THAT(firstAttribute().value(), ElementsAre("a"));
}

TEST_F(AnEntry, JoinsThoseThatArrivedBefore)
{
    parse(messages.entry("cn=a"));

    parse(messages.entry("cn=b"));

    EXPECT_THAT(entryNames(), ElementsAre("cn=a", "cn=b"));
}

TEST_F(AChain, OfEntriesIsReadWhole)
{
    parse(messages.entries({"cn=a", "cn=b", "cn=c"}));

    EXPECT_THAT(entryNames(), ElementsAre("cn=a", "cn=b", "cn=c"));
}

TEST_F(AChain, IsJudgedByItsFirstMessageAndStepsFromEachEntryToTheNext)
{
    LDAPMessage* const first = take(messages.entries({"cn=a", "cn=b"}));
    openldap.name(first, "first");
    openldap.name(ldap_next_message(messages.session(), first), "second");
    openldap.forgetCalls();

    result.parseListResultEntry(chain);

    EXPECT_THAT(openldap.calls(), Contains("ldap_msgtype first").Times(2));
    EXPECT_THAT(openldap.calls(), Contains("ldap_get_dn session first").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_get_dn session second").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_next_message session first").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_next_message session second").Times(1));
}

TEST_F(AChain, ThatIsEmptyIsLeftAloneWithoutACall)
{
    result.parseListResultEntry(chain);

    EXPECT_THAT(openldap.calls(), IsEmpty());
    EXPECT_THAT(entryNames(), IsEmpty());
}

TEST_F(AChain, ThatHasNoMessagesIsLeftAlone)
{
    openldap.ldap_first_message = [](auto...) { return nullptr; };
    parse(messages.entry("cn=a"));
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_count_messages session message",
                                              "ldap_first_message session message"));

    openldap.ldap_count_messages = [](auto...) { return 0; };
    parse(messages.entry("cn=a"));
    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_count_messages session message"));
    EXPECT_THAT(entryNames(), IsEmpty());
}

TEST_F(AChain, ThatBeginsWithAnotherKindOfMessageIsRefused)
{
    auto const thrown =
        thrownBy([&] { parse(messages.response(LDAP_RES_SEARCH_RESULT, LDAP_SUCCESS)); });

    EXPECT_THAT(thrown, IsFault("Result.cpp", 420, 4, 6, ""));
    EXPECT_FALSE(thrown.hasCause());
}

TEST_F(AContinuationReference, IsCheckedWithTheseCallsAndFreed)
{
    parse(messages.reference({"ldap://a/", "ldap://b/"}));

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_count_messages session message",
                            "ldap_first_message session message", "ldap_msgtype message",
                            "ldap_first_message session message",
                            "ldap_parse_reference session message null 0",
                            "ldap_value_free ['ldap://a/' 'ldap://b/']",
                            "ldap_next_message session message"));
}

TEST_F(AContinuationReference, LeavesEntriesAndReferencesUnchanged)
{
    parse(messages.entry("cn=a"));

    parse(messages.reference({"ldap://a/"}));

    EXPECT_THAT(entryNames(), ElementsAre("cn=a"));
    EXPECT_THAT(result.searchReferrals(), IsEmpty());
    EXPECT_THAT(result.referrals(), IsEmpty());
}

TEST_F(AContinuationReference, ThatIsDamagedIsReported)
{
    EXPECT_THAT(thrownBy([&] { parse(messages.damagedReference()); }),
                IsFault("Result.cpp", 646, 4, 5, "Decoding error"));
}

TEST_F(AContinuationReference, ThatIsMalformedFreesWhatOpenLDAPReturned)
{
    openldap.ldap_parse_reference = [](LDAP*, LDAPMessage*, char*** references, LDAPControl***,
                                       int) {
        *references = newTexts({"ldap://a/"});
        return LDAP_DECODING_ERROR;
    };

    thrownBy([&] { parse(messages.reference({"ldap://a/"})); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free ['ldap://a/']").Times(1));
}

// OpenLDAP would end the process.
TEST_F(AContinuationReference, ThatIsNotThereIsLeftAloneWithoutACall)
{
    result.parseSearchReference(chain);

    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AContinuationReference, CanBeCheckedByItself)
{
    take(messages.reference({"ldap://a/"}));

    result.parseSearchReference(chain);

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_first_message session message",
                                              "ldap_parse_reference session message null 0",
                                              "ldap_value_free ['ldap://a/']"));
}

TEST_F(AnEntryThatFails, WithAForeignExceptionHasItAsTheCauseOnceAlsoThroughTheWholeParser)
{
    openldap.ldap_get_dn = throwForeign<char*>;
    take(messages.entry("cn=a"));

    for (auto const parser :
         {&LDAPResultImpl::parseListResultEntry, &LDAPResultImpl::parseMessage}) {
        auto const thrown = thrownBy([&] { (result.*parser)(chain); });

        EXPECT_THAT(thrown, IsFault("Result.cpp", 479, 4, 6, ""));
        ASSERT_TRUE(thrown.hasCause());
        EXPECT_EQ(thrown.cause().name(), "foreign");
        EXPECT_FALSE(thrown.cause().hasCause());
    }
}

TEST_F(AnEntryThatFails, LetsAnLDAPExceptionPassUnchanged)
{
    openldap.ldap_get_dn = [](auto...) -> char* {
        throw Solvane::LDAPException("LDAPException", 4, "Elsewhere.cpp", 5, 3);
    };

    auto const thrown = thrownBy([&] { parse(messages.entry("cn=a")); });

    EXPECT_THAT(thrown, IsFault("Elsewhere.cpp", 5, 4, 3));
    EXPECT_FALSE(thrown.hasCause());
}

TEST_F(AnEntryThatFails, IsNotAppendedAndLeavesThoseBeforeIt)
{
    parse(messages.entry("cn=before"));
    openldap.ldap_next_attribute = throwForeign<char*>;

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}, {"mail", {"m"}}})); });

    EXPECT_THAT(entryNames(), ElementsAre("cn=before"));
}

TEST_F(AnEntryThatFails, WhileItsValuesAreReadGivesNamePositionAndDnBackOnce)
{
    openldap.ldap_get_values_len = throwForeign<berval**>;

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}})); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
}

TEST_F(AnEntryThatFails, AtTheNextAttributeGivesValuesNamePositionAndDnBackOnce)
{
    openldap.ldap_next_attribute = throwForeign<char*>;

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}})); });

    EXPECT_THAT(openldap.calls(), Contains("ldap_value_free_len ['a']").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn'").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
}

TEST_F(AnEntryThatFails, AtItsFirstAttributeGivesPositionAndDnBackOnce)
{
    openldap.ldap_first_attribute = [&](LDAP* session, LDAPMessage* entry,
                                        BerElement** position) -> char* {
        ldap_memfree(ldap_first_attribute(session, entry, position));
        openldap.name(*position, "position");
        return throwForeign<char*>();
    };

    thrownBy([&] { parse(messages.entry("cn=a", {{"cn", {"a"}}})); });

    EXPECT_THAT(openldap.calls(), Contains("ber_free position 0").Times(1));
    EXPECT_THAT(openldap.calls(), Contains("ldap_memfree 'cn=a'").Times(1));
}

} // namespace
} // namespace SolvaneTest

// The forms of a key: address forms, internationalized domains, served domains.
#include "KeyForms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane::Lookup;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace SolvaneTest {

namespace {

Settings with(std::vector<Form> const& forms)
{
    Settings settings;
    settings.forms = forms;
    return settings;
}

std::vector<std::string> formsOf(std::string const& key,
                                 std::vector<Form> const& forms = {Form::full})
{
    return KeyForms(with(forms)).of(key);
}

constexpr char unicode[] = "anna@m\xc3\xbcnchen.example";
constexpr char ascii[] = "anna@xn--mnchen-3ya.example";

} // namespace

TEST(FormsOfAKey, AreUsuallyOnlyTheKeyItself)
{
    EXPECT_THAT(formsOf("anna@example.com"), IsEmpty());
    EXPECT_THAT(formsOf("anna"), IsEmpty());
    EXPECT_THAT(formsOf("anna@example.com", {Form::noext}), IsEmpty());
}

TEST(FormsOfAKey, ComeInTheirOrderEachOnce)
{
    EXPECT_THAT(
        formsOf("anna+lists@example.com", {Form::full, Form::noext, Form::bare, Form::domain}),
        ElementsAre("anna+lists@example.com", "anna@example.com", "anna", "@example.com"));
    EXPECT_THAT(formsOf("anna@example.com", {Form::full, Form::noext, Form::bare}),
                ElementsAre("anna@example.com", "anna"));
}

TEST(FormsOfAKey, KeepADelimiterInFront)
{
    EXPECT_THAT(formsOf("+anna+x@example.com", {Form::noext}), ElementsAre("+anna@example.com"));
}

TEST(FormsOfAKey, AreTheKeyItselfIfItHasNoneOfThem)
{
    EXPECT_THAT(formsOf("@example.com", {Form::bare}), IsEmpty());
}

TEST(FormsOfAKey, HoldTheAsciiFormOfAnInternationalisedDomain)
{
    EXPECT_THAT(formsOf(unicode), ElementsAre(unicode, ascii));
}

TEST(FormsOfAKey, HoldTheUnicodeFormOfADomainInAscii)
{
    EXPECT_THAT(formsOf(ascii), ElementsAre(ascii, unicode));
    EXPECT_THAT(formsOf("anna@XN--mnchen-3ya.example"),
                ElementsAre("anna@XN--mnchen-3ya.example", unicode));
}

TEST(FormsOfAKey, HoldBothDomainsForEachForm)
{
    EXPECT_THAT(formsOf("a+x@xn--mnchen-3ya.example", {Form::full, Form::noext, Form::bare}),
                ElementsAre("a+x@xn--mnchen-3ya.example", "a+x@m\xc3\xbcnchen.example",
                            "a@xn--mnchen-3ya.example", "a@m\xc3\xbcnchen.example", "a"));
}

TEST(FormsOfAKey, HoldNoOtherDomainIfThatIsSwitchedOff)
{
    Settings settings;
    settings.asciiDomains = false;

    EXPECT_THAT(KeyForms(settings).of(unicode), IsEmpty());
}

TEST(FormsOfAKey, LeaveADomainAloneThatIsInvalidInAscii)
{
    EXPECT_THAT(formsOf("anna@-\xc3\xbc-.example"), IsEmpty());
    EXPECT_THAT(formsOf("anna@xn--\x7f.example"), IsEmpty());
}

TEST(FormsOfAKey, HoldNoUnicodeFormThatIsAnotherDomain)
{
    EXPECT_THAT(formsOf("anna@xn--example-2z6c.test"), IsEmpty()); // a zero-width space inside
    EXPECT_THAT(formsOf("anna@xn--a.test"), IsEmpty());            // a control character
    EXPECT_THAT(formsOf("anna@XN--MNCHEN-3YA.example."),
                ElementsAre("anna@XN--MNCHEN-3YA.example.", "anna@M\xc3\xbcNCHEN.example."));
}

TEST(ServedDomains, AreComparedInBothForms)
{
    Settings settings;
    settings.domains = {"M\xc3\xbcnchen.example", "xn--kln-sna.example", "Corp.Test"};
    KeyForms const forms(settings);

    EXPECT_TRUE(forms.isServed(unicode));
    EXPECT_TRUE(forms.isServed(ascii));
    EXPECT_TRUE(forms.isServed("a@k\xc3\xb6ln.example"));
    EXPECT_TRUE(forms.isServed("a@xn--kln-sna.example"));
    EXPECT_TRUE(forms.isServed("a@CORP.test"));
    EXPECT_FALSE(forms.isServed("a@other.test"));
    EXPECT_FALSE(forms.isServed("a@b\xc3\xbc.example"));
    EXPECT_FALSE(forms.isServed("corp.test"));
}

TEST(ServedDomains, DoNotServeKeysWithoutADomainIfOneIsInvalidInAscii)
{
    Settings settings;
    settings.domains = {"ab--cd.test"};
    KeyForms const forms(settings);

    EXPECT_TRUE(forms.isServed("a@AB--cd.test"));
    EXPECT_FALSE(forms.isServed("postmaster"));
    EXPECT_FALSE(forms.isServed("postmaster@"));
    EXPECT_FALSE(forms.isServed("a@-\xc3\xbc-.example"));
}

TEST(AKey, IsRefusedBeyondItsLengthAndIfItIsNoText)
{
    KeyForms const forms{Settings()};

    EXPECT_EQ(forms.faultOf(std::string(1000, 'x')), "");
    EXPECT_EQ(forms.faultOf(std::string(1001, 'x')), "the key has 1001 bytes, the maximum is 1000");
    EXPECT_EQ(forms.faultOf(""), "the key is empty");
    EXPECT_THAT(forms.faultOf("a\nb"), StartsWith("the key contains a control character"));
}

} // namespace SolvaneTest

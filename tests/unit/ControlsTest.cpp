// The values of controls, byte by byte, and what responses say.
#include <solvane/ldap/LDAPControls.h>

#include "Faults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace Solvane;
using namespace std::string_literals;
using Control = LDAPOperation::Control;
using SolvaneTest::IsFault;
using SolvaneTest::thrownBy;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A control without a value: oid, criticality.
MATCHER_P2(IsBare, oid, isCritical, "")
{
    return arg.oid() == oid && arg.isCritical() == isCritical && !arg.hasValue();
}
MATCHER_P3(IsControl, oid, isCritical, value, "")
{
    *result_listener << testing::PrintToString(arg.value());
    return arg.oid() == oid && arg.isCritical() == isCritical && arg.hasValue() &&
           arg.value() == value;
}

/// The controls of a response, with another one first.
std::list<Control> response(std::string const& oid, std::string const& value)
{
    return {Control("1.2.3", false, "other"), Control(oid, false, value)};
}

/// Expects that `read` finds no control among others, and refuses these values and none.
template <typename Answer>
void expectStrict(bool (*read)(std::list<Control> const&, Answer&), std::string const& oid,
                  std::list<std::string> const& malformed)
{
    Answer answer{};
    EXPECT_FALSE(read({Control("1.2.3", false)}, answer));
    for (std::string const& value : malformed) {
        EXPECT_THAT(thrownBy([&] { read(response(oid, value), answer); }),
                    IsFault("Controls.cpp", 84, 1, 6, "Malformed response control"))
            << testing::PrintToString(value);
    }
    EXPECT_THAT(thrownBy([&] { read({Control(oid, false)}, answer); }),
                IsFault("Controls.cpp", 84, 1, 6));
}

constexpr char paged[] = "1.2.840.113556.1.4.319";
constexpr char sortRequest[] = "1.2.840.113556.1.4.473";
constexpr char sortResponse[] = "1.2.840.113556.1.4.474";
constexpr char preRead[] = "1.3.6.1.1.13.1";
constexpr char postRead[] = "1.3.6.1.1.13.2";
constexpr char policyOid[] = "1.3.6.1.4.1.42.2.27.8.5.1";

} // namespace

TEST(APagedResultsControl, HasSizeAndCookie)
{
    EXPECT_THAT(LDAPControls::pagedResults(2),
                IsControl(paged, true, "\x30\x05\x02\x01\x02\x04\x00"s));
    EXPECT_THAT(LDAPControls::pagedResults(0x0102, "a\0"s, false),
                IsControl(paged, false,
                          "\x30\x08\x02\x02\x01\x02\x04\x02"
                          "a\0"s));
    EXPECT_THAT(thrownBy([] { LDAPControls::pagedResults(-1); }),
                IsFault("Controls.cpp", 41, 2, 0, "The size of a page is negative"));
}

TEST(APagedResultsControl, IsDecoded)
{
    LDAPControls::Page page;

    EXPECT_TRUE(
        LDAPControls::pagedResults(response(paged, "\x30\x07\x02\x01\x05\x04\x02x\0"s), page));

    EXPECT_EQ(page.estimate, 5);
    EXPECT_EQ(page.cookie, "x\0"s);
    expectStrict<LDAPControls::Page>(
        LDAPControls::pagedResults, paged,
        {"", "\x30", "\x30\x00"s, "\x30\x03\x02\x01\x05", "\x30\x05\x02\x01\x05\x04\x01",
         "\x30\x05\x02\x01\x05\x04\x00x"s, "\x30\x07\x02\x01\x05\x04\x00\x04\x00"s,
         "\x31\x05\x02\x01\x05\x04\x00"s, "\x30\x05\x0a\x01\x05\x04\x00"s,
         "\x30\x09\x02\x05\x01\x01\x01\x01\x01\x04\x00"s, "\x30\x04\x02\x00\x04\x00"s});
}

// A search must not fail for an estimate.
TEST(APagedResultsControl, SaysNothingWithANegativeEstimate)
{
    LDAPControls::Page page;

    EXPECT_TRUE(LDAPControls::pagedResults(response(paged, "\x30\x06\x02\x01\xff\x04\x01x"), page));

    EXPECT_EQ(page.estimate, 0);
    EXPECT_EQ(page.cookie, "x");
}

TEST(APagedResultsControl, LeavesThePageAsItIsWhenItIsMalformed)
{
    LDAPControls::Page page;
    page.cookie = "before";

    thrownBy([&] {
        LDAPControls::pagedResults(response(paged, "\x30\x07\x02\x01\x05\x04\x00\x04\x00"s), page);
    });

    EXPECT_EQ(page.cookie, "before");
    EXPECT_EQ(page.estimate, 0);
}

TEST(ASortControl, HasItsKeysInOrder)
{
    EXPECT_THAT(LDAPControls::sort({{"cn"}, {"sn", "2.5.13.3", true}}),
                IsControl(sortRequest, true,
                          "\x30\x19\x30\x04\x04\x02"
                          "cn\x30\x11\x04\x02sn\x80\x08"
                          "2.5.13.3\x81\x01\xff"s));
    EXPECT_THAT(LDAPControls::sort({{"cn"}}, false), IsControl(sortRequest, false,
                                                               "\x30\x06\x30\x04\x04\x02"
                                                               "cn"s));
}

TEST(ASortControl, IsDecoded)
{
    LDAPControls::SortResult sorted;
    LDAPControls::SortResult unsorted;

    EXPECT_TRUE(LDAPControls::sort(response(sortResponse, "\x30\x03\x0a\x01\x00"s), sorted));
    EXPECT_TRUE(
        LDAPControls::sort(response(sortResponse, "\x30\x07\x0a\x01\x10\x80\x02xy"), unsorted));

    EXPECT_EQ(sorted.code, 0);
    EXPECT_EQ(sorted.type, "");
    EXPECT_EQ(unsorted.code, 16);
    EXPECT_EQ(unsorted.type, "xy");
    expectStrict<LDAPControls::SortResult>(
        LDAPControls::sort, sortResponse,
        {"", "\x30\x00"s, "\x30\x03\x02\x01\x00"s, "\x30\x07\x0a\x01\x10\x81\x02xy",
         "\x30\x07\x0a\x01\x10\x80\x05xy", "\x30\x09\x0a\x01\x10\x80\x02xy\x04\x00"s});
}

TEST(AnAssertionControl, HasTheFilterThatASearchWouldSend)
{
    EXPECT_THAT(LDAPControls::assertion("(cn=a)"), IsControl("1.3.6.1.1.12", true,
                                                             "\xa3\x07\x04\x02"
                                                             "cn\x04\x01"
                                                             "a"s));
    EXPECT_THAT(LDAPControls::assertion("(&(cn=a)(!(sn=*)))", false),
                IsControl("1.3.6.1.1.12", false,
                          "\xa0\x0f\xa3\x07\x04\x02"
                          "cn\x04\x01"
                          "a\xa2\x04\x87\x02sn"s));
}

TEST(AnAssertionControl, RefusesWhatIsNoFilter)
{
    for (char const* const filter : {"", " ", "(", "(cn=a", "(&(cn=a)", "(cn=a)(cn=b)"}) {
        EXPECT_THAT(thrownBy([&] { LDAPControls::assertion(filter); }),
                    IsFault("Controls.cpp", 52, 2, 0, "Bad search filter : "s + filter));
    }
    EXPECT_THAT(thrownBy([] { LDAPControls::assertion("(cn=a\0)"s); }),
                IsFault("Operation.cpp", 70, 2, 0));
}

// OpenLDAP recurses for each level, with a copy of the rest.
TEST(AnAssertionControl, RefusesAFilterThatWouldExhaustTheStack)
{
    std::string deep;
    for (int level = 0; level != 30000; ++level) {
        deep += "(!";
    }

    EXPECT_THAT(thrownBy([&] { LDAPControls::assertion(deep); }),
                IsFault("Controls.cpp", 52, 2, 0));
}

TEST(AReadControl, NamesTheAttributes)
{
    EXPECT_THAT(LDAPControls::preRead({"cn", "*"}), IsControl(preRead, true,
                                                              "\x30\x07\x04\x02"
                                                              "cn\x04\x01*"s));
    EXPECT_THAT(LDAPControls::postRead({}, false), IsControl(postRead, false, "\x30\x00"s));
}

TEST(AReadControl, IsDecodedAsAnEntry)
{
    std::string const value = "\x64\x1b\x04\x04"
                              "cn=a\x30\x13\x30\x0b\x04\x02"
                              "cn\x31\x05\x04\x03"
                              "a\0b"
                              "\x30\x04\x04\x00\x31\x00"s;
    LDAPSearchResultEntry before("");
    LDAPSearchResultEntry after("");

    EXPECT_TRUE(LDAPControls::preRead(response(preRead, value), before));
    EXPECT_TRUE(LDAPControls::postRead(response(postRead, value), after));

    EXPECT_EQ(after.entryName(), "cn=a");
    EXPECT_EQ(before.entryName(), "cn=a");
    std::list<LDAPAttribute> const& attributes = before.attributes().attributes();
    ASSERT_EQ(attributes.size(), 2U);
    EXPECT_EQ(attributes.front().type().asString(), "cn");
    EXPECT_THAT(attributes.front().value(), ElementsAre("a\0b"s));
    EXPECT_THAT(attributes.back().value(), IsEmpty());
}

TEST(AReadControl, RefusesMalformedEntries)
{
    std::list<std::string> const malformed{
        "", "\x64\x00"s,
        "\x30\x08\x04\x04"
        "cn=a\x30\x00"s,
        "\x64\x06\x04\x04"
        "cn=a",
        "\x64\x08\x04\x04"
        "cn=a\x31\x00"s,
        // an attribute without values, one that is cut, and one with a foreign value
        "\x64\x0e\x04\x04"
        "cn=a\x30\x06\x30\x04\x04\x02"
        "cn",
        "\x64\x0e\x04\x04"
        "cn=a\x30\x06\x30\x09\x04\x02"
        "cn",
        "\x64\x12\x04\x04"
        "cn=a\x30\x0a\x30\x08\x04\x02"
        "cn\x31\x02\x02\x00"s};
    LDAPSearchResultEntry entry("before");

    for (std::string const& value : malformed) {
        EXPECT_THAT(thrownBy([&] { LDAPControls::preRead(response(preRead, value), entry); }),
                    IsFault("Controls.cpp", 84, 1, 6, "Malformed response control"))
            << testing::PrintToString(value);
    }
    EXPECT_FALSE(LDAPControls::postRead(response(preRead, ""), entry));
    EXPECT_EQ(entry.entryName(), "before");
}

TEST(ControlsOfOneText, HaveIt)
{
    EXPECT_THAT(LDAPControls::proxiedAuthorization("dn:cn=a"),
                IsControl("2.16.840.1.113730.3.4.18", true, "dn:cn=a"));
    EXPECT_THAT(LDAPControls::proxiedAuthorization(""),
                IsControl("2.16.840.1.113730.3.4.18", true, ""));
    EXPECT_THAT(LDAPControls::manageDsaIT(), IsBare("2.16.840.1.113730.3.4.2", true));
    EXPECT_THAT(LDAPControls::manageDsaIT(false), IsBare("2.16.840.1.113730.3.4.2", false));
    EXPECT_THAT(LDAPControls::subentries(true),
                IsControl("1.3.6.1.4.1.4203.1.10.1", true, "\x01\x01\xff"s));
    EXPECT_THAT(LDAPControls::subentries(false),
                IsControl("1.3.6.1.4.1.4203.1.10.1", true, "\x01\x01\x00"s));
    EXPECT_THAT(LDAPControls::passwordPolicy(), IsBare(policyOid, false));
}

TEST(APasswordPolicyControl, IsDecoded)
{
    auto const policyIn = [](std::string const& value) {
        LDAPControls::PasswordPolicy policy;
        EXPECT_TRUE(LDAPControls::passwordPolicy(response(policyOid, value), policy));
        return std::list<int>{policy.secondsLeft, policy.logins, policy.error};
    };

    EXPECT_THAT(policyIn("\x30\x00"s), ElementsAre(-1, -1, -1));
    EXPECT_THAT(policyIn("\x30\x06\xa0\x04\x80\x02\x01\x00"s), ElementsAre(256, -1, -1));
    EXPECT_THAT(policyIn("\x30\x05\xa0\x03\x81\x01\x07"), ElementsAre(-1, 7, -1));
    EXPECT_THAT(policyIn("\x30\x03\x81\x01\x06"), ElementsAre(-1, -1, 6));
    EXPECT_THAT(policyIn("\x30\x08\xa0\x03\x81\x01\x00\x81\x01\x02"s), ElementsAre(-1, 0, 2));
    expectStrict<LDAPControls::PasswordPolicy>(
        LDAPControls::passwordPolicy, policyOid,
        {"", "\x30\x01", "\x30\x02\xa0\x00"s, "\x30\x05\xa0\x03\x82\x01\x07",
         "\x30\x03\x82\x01\x06", "\x30\x03\x81\x01\xff", "\x30\x05\xa0\x03\x80\x01\xff",
         "\x30\x05\xa0\x03\x81\x01\xff", "\x30\x06\x81\x01\x06\x81\x01\x06",
         "\x30\x08\xa0\x06\x80\x01\x01\x81\x01\x01"});
}

namespace {

/// Whether the value is decoded; otherwise it must be refused as malformed.
bool isDecoded(std::string const& oid, std::string const& value)
{
    std::list<Control> const controls = response(oid, value);
    LDAPControls::Page page;
    LDAPControls::SortResult sorted;
    LDAPControls::PasswordPolicy policy;
    LDAPSearchResultEntry entry("");
    try {
        return LDAPControls::pagedResults(controls, page) || LDAPControls::sort(controls, sorted) ||
               LDAPControls::passwordPolicy(controls, policy) ||
               LDAPControls::preRead(controls, entry);
    } catch (LDAPException const& thrown) {
        EXPECT_THAT(thrown, IsFault("Controls.cpp", 84, 1, 6, "Malformed response control"));
        return false;
    }
}

} // namespace

// Each value cut short, and with each byte changed in every way.
TEST(AResponseControl, IsDecodedOrRefusedWhateverItsBytes)
{
    std::list<std::pair<std::string, std::string>> const values{
        {paged, "\x30\x07\x02\x01\x05\x04\x02x\0"s},
        {sortResponse, "\x30\x07\x0a\x01\x10\x80\x02xy"},
        {policyOid, "\x30\x08\xa0\x03\x81\x01\x00\x81\x01\x02"s},
        {preRead, "\x64\x15\x04\x04"
                  "cn=a\x30\x0d\x30\x0b\x04\x02"
                  "cn\x31\x05\x04\x03"
                  "a\0b"s}};

    for (auto const& [oid, value] : values) {
        EXPECT_TRUE(isDecoded(oid, value)) << oid;
        for (std::size_t i = 0; i < value.size(); ++i) {
            EXPECT_FALSE(isDecoded(oid, value.substr(0, i))) << oid << ' ' << i;
            for (int byte = 0; byte < 256; ++byte) {
                std::string changed = value;
                changed[i] = static_cast<char>(byte);
                isDecoded(oid, changed);
            }
        }
    }
}

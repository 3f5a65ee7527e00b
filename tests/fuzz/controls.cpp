// Target of the controls of responses: each as OpenLDAP decodes it.
#include "Target.h"

#include <solvane/ldap.h>

#include <list>
#include <memory>
#include <optional>
#include <string>

#include <ldap.h>

using namespace Solvane;
using SolvaneTest::require;

namespace {

using Controls = std::list<LDAPOperation::Control>;

/// What a function of LDAPControls decodes; empty if the value is malformed.
template <typename Found>
std::optional<Found> decoded(bool (*decode)(Controls const&, Found&), Controls const& controls,
                             Found found = Found())
{
    try {
        require(decode(controls, found), "the control is found");
        return found;
    } catch (LDAPException const& fault) {
        require(fault.code() == 1 && fault.getType() == 6 && fault.lineNumber() == 84,
                "malformed values are reported as such");
        return std::nullopt;
    }
}

LDAP* session()
{
    static LDAP* const one = [] {
        LDAP* made = nullptr;
        require(ldap_create(&made) == LDAP_SUCCESS, "there is a session");
        return made;
    }();
    return one;
}

/// A control for OpenLDAP, with the bytes of `value`.
::LDAPControl controlOf(char const* oid, std::string const& value)
{
    return {const_cast<char*>(oid), berval{value.size(), const_cast<char*>(value.data())}, 0};
}

void fuzzPages(std::string const& value)
{
    auto const ours = decoded<LDAPControls::Page>(
        &LDAPControls::pagedResults,
        {LDAPOperation::Control(LDAP_CONTROL_PAGEDRESULTS, false, value)});
    if (!ours) {
        return;
    }
    auto control = controlOf(LDAP_CONTROL_PAGEDRESULTS, value);
    ber_int_t estimate = 0;
    berval cookie{};
    require(ldap_parse_pageresponse_control(session(), &control, &estimate, &cookie) ==
                LDAP_SUCCESS,
            "OpenLDAP decodes the page");
    std::string const theirs(cookie.bv_val == nullptr ? "" : cookie.bv_val, cookie.bv_len);
    ber_memfree(cookie.bv_val);
    require(ours->estimate == std::max(estimate, 0) && ours->cookie == theirs,
            "OpenLDAP finds the same page");
    if (ours->estimate >= 0) {
        auto const again =
            decoded<LDAPControls::Page>(&LDAPControls::pagedResults,
                                        {LDAPControls::pagedResults(ours->estimate, ours->cookie)});
        require(again && again->estimate == ours->estimate && again->cookie == ours->cookie,
                "what is encoded is decoded");
    }
}

void fuzzSort(std::string const& value)
{
    auto const ours = decoded<LDAPControls::SortResult>(
        &LDAPControls::sort, {LDAPOperation::Control(LDAP_CONTROL_SORTRESPONSE, false, value)});
    if (!ours || ours->type.find('\0') != std::string::npos) { // OpenLDAP refuses such a type
        return;
    }
    auto control = controlOf(LDAP_CONTROL_SORTRESPONSE, value);
    ber_int_t code = 0;
    char* type = nullptr;
    require(ldap_parse_sortresponse_control(session(), &control, &code, &type) == LDAP_SUCCESS,
            "OpenLDAP decodes the result of a sort");
    std::string const theirs = type == nullptr ? "" : type;
    ldap_memfree(type);
    require(ours->code == code && ours->type == theirs, "OpenLDAP finds the same result");
}

void fuzzPolicy(std::string const& value)
{
    auto const ours = decoded<LDAPControls::PasswordPolicy>(
        &LDAPControls::passwordPolicy,
        {LDAPOperation::Control(LDAP_CONTROL_PASSWORDPOLICYRESPONSE, false, value)});
    if (!ours) {
        return;
    }
    auto control = controlOf(LDAP_CONTROL_PASSWORDPOLICYRESPONSE, value);
    ber_int_t seconds = -1;
    ber_int_t logins = -1;
    LDAPPasswordPolicyError error = PP_noError;
    require(ldap_parse_passwordpolicy_control(session(), &control, &seconds, &logins, &error) ==
                LDAP_SUCCESS,
            "OpenLDAP decodes the policy");
    int const theirs = error == PP_noError ? -1 : static_cast<int>(error);
    require(ours->secondsLeft == seconds && ours->logins == logins &&
                (ours->error == theirs || ours->error == static_cast<int>(PP_noError)),
            "OpenLDAP finds the same policy");
}

void fuzzEntries(std::string const& value)
{
    LDAPSearchResultEntry const none("none");
    auto const before =
        decoded(&LDAPControls::preRead,
                {LDAPOperation::Control(LDAP_CONTROL_PRE_READ, false, value)}, none);
    auto const after =
        decoded(&LDAPControls::postRead,
                {LDAPOperation::Control(LDAP_CONTROL_POST_READ, false, value)}, none);
    require(before.has_value() == after.has_value(), "both reads have the same form");
    if (before) {
        require(before->dn().size() <= value.size() && before->dn() == after->dn(),
                "the DN is a part of the value");
    }
}

} // namespace

namespace SolvaneTest {

/// The first byte chooses the control.
void fuzz_controls(std::uint8_t const* data, std::size_t size)
{
    if (size == 0) {
        return;
    }
    constexpr void (*targets[])(std::string const&) = {fuzzPages, fuzzSort, fuzzPolicy,
                                                       fuzzEntries};
    targets[data[0] % std::size(targets)](SolvaneTest::textOf(data + 1, size - 1));
}

} // namespace SolvaneTest

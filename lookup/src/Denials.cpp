// The tables of denials: result codes, password policies, Active Directory's words.
#include "Denials.h"

#include <solvane/session/PlainText.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

using PolicyError = BindResult::PolicyError;

/// Active Directory refuses every bind with code 49 and names the Windows error in its text:
/// "80090308: LdapErr: DSID-0C090447, comment: AcceptSecurityContext error, data 52e, v4563".
struct WindowsError {
    unsigned int code;
    Denial denial;
};
// clang-format off
constexpr WindowsError windowsErrors[] = {
    { 0x525, Denial::password   }, // no such user
    { 0x52E, Denial::password   },
    { 0x52F, Denial::locked     }, // restricted account
    { 0x530, Denial::locked     }, // not at this time
    { 0x531, Denial::locked     }, // not from this workstation
    { 0x532, Denial::expired    },
    { 0x533, Denial::locked     }, // disabled account
    { 0x534, Denial::locked     }, // this type of logon is not granted
    { 0x701, Denial::locked     }, // expired account
    { 0x773, Denial::mustChange },
    { 0x775, Denial::locked     },
};
// clang-format on

Denial denialByWindows(std::string_view text)
{
    constexpr std::string_view mark = ", data ";
    constexpr int hexadecimal = 16;
    auto const at = text.find(mark);
    if (at == std::string_view::npos) {
        return Denial::password;
    }
    text.remove_prefix(at + mark.size());
    unsigned int code = 0;
    auto const end = std::from_chars(text.data(), text.data() + text.size(), code, hexadecimal).ptr;
    bool const isWhole = end == text.data() + text.size() || *end == ',';
    auto const* const known =
        std::find_if(std::begin(windowsErrors), std::end(windowsErrors),
                     [&](WindowsError const& error) { return isWhole && error.code == code; });
    return known == std::end(windowsErrors) ? Denial::password : known->denial;
}

Denial denialByPolicy(PolicyError error)
{
    switch (error) {
    case PolicyError::passwordExpired:
        return Denial::expired;
    case PolicyError::accountLocked:
        return Denial::locked;
    case PolicyError::changeAfterReset:
        return Denial::mustChange;
    case PolicyError::none:
        break;
    }
    return Denial::none;
}

/// A server that demands a new password accepts the bind, but then permits nothing except the
/// change. So it does not grant access, and neither must a program that asks for its judgement.
Denial denialOfSuccess(BindResult const& result)
{
    if (result.policyError == PolicyError::passwordExpired && result.graceLogins) {
        return Denial::none; // a grace login
    }
    if (result.isMarkedExpired && !result.hasPolicy) {
        return Denial::mustChange; // Netscape's control has no other meaning with a success
    }
    return denialByPolicy(result.policyError);
}

} // namespace

Denial denialOf(BindResult const& result)
{
    Denial const byPolicy = denialByPolicy(result.policyError);
    switch (result.code) {
    case LDAP_SUCCESS:
        return denialOfSuccess(result);
    case LDAP_INVALID_CREDENTIALS:
        if (byPolicy != Denial::none) {
            return byPolicy;
        }
        return result.isMarkedExpired ? Denial::expired : denialByWindows(result.serverText);
    case LDAP_INAPPROPRIATE_AUTH: // the entry has no password
        return Denial::password;
    case LDAP_CONSTRAINT_VIOLATION: // 389 Directory Server: too many wrong passwords, or inactive
        return byPolicy != Denial::none ? byPolicy : Denial::locked;
    case LDAP_UNWILLING_TO_PERFORM: // 389 Directory Server: "Account inactivated."
        return result.serverText.find("inactivated") != std::string::npos ? Denial::locked
                                                                          : byPolicy;
    default:
        return Denial::none;
    }
}

std::string faultOfPassword(std::string const& password)
{
    constexpr std::size_t longest = 1024;
    if (isBlank(password)) {
        return "the password is empty or blank";
    }
    if (password.size() > longest) {
        return "the password is longer than " + std::to_string(longest) + " bytes";
    }
    if (hasNul(password)) {
        return "the password contains a NUL byte";
    }
    return isUtf8(password) ? std::string() : "the password is not valid UTF-8";
}

std::string describe(Denial denial)
{
    switch (denial) {
    case Denial::none:
        break;
    case Denial::password:
        return "the password is wrong";
    case Denial::expired:
        return "the password has expired";
    case Denial::locked:
        return "the account is locked or disabled";
    case Denial::mustChange:
        return "the password must be changed first";
    }
    return std::string();
}

} // namespace Solvane::Lookup

// Reads bind responses and the controls of password policies.
#include <solvane/session/BindResult.h>

#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>

#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "BerReader.h"
#include "OpenLDAP.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

namespace Solvane::Lookup {

namespace {

constexpr char policyControl[] = LDAP_CONTROL_PASSWORDPOLICYRESPONSE;
constexpr char netscapeExpired[] = "2.16.840.1.113730.3.4.4";
constexpr char netscapeExpiring[] = "2.16.840.1.113730.3.4.5";

struct FreeControls {
    void operator()(LDAPControl** controls) const { ldap_controls_free(controls); }
};
using Controls = std::unique_ptr<LDAPControl*, FreeControls>;

std::string_view valueOf(LDAPControl const& control)
{
    berval const& value = control.ldctl_value;
    return value.bv_val == nullptr ? std::string_view()
                                   : std::string_view(value.bv_val, value.bv_len);
}

/// Reads the content of an INTEGER or ENUMERATED. A negative number is none.
bool readNumber(std::string_view content, std::uint32_t& number)
{
    constexpr std::size_t longest = 5; // a number of 32 bits may begin with a zero byte
    bool const isNegative = !content.empty() && (content.front() & 0x80) != 0;
    if (content.empty() || content.size() > longest || isNegative) {
        return false;
    }
    std::uint64_t value = 0;
    for (char const byte : content) {
        value = value << 8 | static_cast<unsigned char>(byte);
    }
    number = static_cast<std::uint32_t>(value);
    return value <= std::numeric_limits<std::uint32_t>::max();
}

void takeError(std::uint32_t error, BindResult& result)
{
    using Error = BindResult::PolicyError;
    constexpr Error errors[] = {Error::passwordExpired, Error::accountLocked,
                                Error::changeAfterReset};
    if (error < std::size(errors)) { // the others concern changes of a password
        result.policyError = errors[error];
    }
}

/// timeBeforeExpiration [0] or graceAuthNsRemaining [1].
bool readWarning(std::string_view content, BindResult& result)
{
    BerReader warning(content);
    int const tag = warning.nextTag();
    std::uint32_t number = 0;
    if (!warning.take(content) || !readNumber(content, number)) {
        return false;
    }
    if (tag == 0x80) {
        result.expiresIn = std::chrono::seconds(number);
    } else if (tag == 0x81) {
        result.graceLogins = number;
    }
    return true;
}

/// PasswordPolicyResponseValue ::= SEQUENCE { warning [0] CHOICE, error [1] ENUMERATED }, both
/// optional. Further elements are ignored (RFC 4511 section 4).
bool readPolicy(std::string_view value, BindResult& result)
{
    BerReader whole(value);
    std::string_view content;
    if (whole.nextTag() != 0x30 || !whole.take(content) || !whole.isAtEnd()) {
        return false;
    }
    BerReader parts(content);
    while (!parts.isAtEnd()) {
        int const tag = parts.nextTag();
        std::uint32_t error = 0;
        if (!parts.take(content)) {
            return false;
        }
        if (tag == 0xA0 && !readWarning(content, result)) {
            return false;
        }
        if (tag == 0x81) {
            if (!readNumber(content, error)) {
                return false;
            }
            takeError(error, result);
        }
    }
    return true;
}

/// Netscape's control has the seconds as text. Other text means nothing.
void readExpiring(std::string_view value, BindResult& result)
{
    std::uint32_t seconds = 0;
    char const* const end = value.data() + value.size();
    auto const read = std::from_chars(value.data(), end, seconds);
    if (read.ec == std::errc() && read.ptr == end && !result.expiresIn) {
        result.expiresIn = std::chrono::seconds(seconds);
    }
}

/// False if the password policy control is damaged.
bool readControls(LDAPControl* const* control, BindResult& result)
{
    bool isGood = true;
    for (; control != nullptr && *control != nullptr; ++control) {
        std::string_view const type((*control)->ldctl_oid);
        if (type == policyControl) {
            result.hasPolicy = true;
            isGood = readPolicy(valueOf(**control), result) && isGood;
        } else if (type == netscapeExpired) {
            result.isMarkedExpired = true;
        } else if (type == netscapeExpiring) {
            readExpiring(valueOf(**control), result);
        }
    }
    return isGood;
}

} // namespace

bool readBindResult(Session const& session, Session::Message const& message, BindResult& result)
{
    result = BindResult();
    LDAPMessage* const parsed = message.parsed.get();
    if (parsed == nullptr || message.type != LDAP_RES_BIND) {
        return false;
    }
    LDAPCharBuffer matched;
    LDAPCharBuffer text;
    LDAPValueBuffer referrals;
    LDAPControl** raw = nullptr;
    int const rc = ldap_parse_result(session.handle(), parsed, &result.code, matched.address(),
                                     text.address(), referrals.address(), &raw, 0);
    Controls const controls(raw);
    if (rc != LDAP_SUCCESS) {
        return false;
    }
    result.serverText = text.get() == nullptr ? std::string() : text.get();
    result.words = wordsFor(result.code, result.serverText);
    for (char** uri = referrals.get(); uri != nullptr && *uri != nullptr; ++uri) {
        result.words += ", see " + oneLine(*uri);
    }
    bool const isReferral = referrals.get() != nullptr && *referrals.get() != nullptr;
    bool const isWhole = readControls(controls.get(), result);
    return result.code != LDAP_SUCCESS || (isWhole && !isReferral);
}

} // namespace Solvane::Lookup

// The table of result codes.
#include <solvane/ldap/LDAPResultCodes.h>

#include "OpenLDAP.h"
#include "ValueText.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>

namespace Solvane {

namespace {

using Code = LDAPResultCodes::Code;

// clang-format off
constexpr Code codes[] = { // in ascending order
    { LDAP_X_CONNECTING,            "LDAP_X_CONNECTING",            "The connection is being opened." },
    { LDAP_REFERRAL_LIMIT_EXCEEDED, "LDAP_REFERRAL_LIMIT_EXCEEDED", "Too many referrals were followed." },
    { LDAP_CLIENT_LOOP,             "LDAP_CLIENT_LOOP",             "Referrals lead back to where they began." },
    { LDAP_MORE_RESULTS_TO_RETURN,  "LDAP_MORE_RESULTS_TO_RETURN",  "More results follow." },
    { LDAP_NO_RESULTS_RETURNED,     "LDAP_NO_RESULTS_RETURNED",     "The response has no result." },
    { LDAP_CONTROL_NOT_FOUND,       "LDAP_CONTROL_NOT_FOUND",       "The response lacks the control." },
    { LDAP_NOT_SUPPORTED,           "LDAP_NOT_SUPPORTED",           "OpenLDAP cannot do this here, for example without LDAPv3." },
    { LDAP_CONNECT_ERROR,           "LDAP_CONNECT_ERROR",           "TLS failed, mostly because the certificate is not accepted." },
    { LDAP_NO_MEMORY,               "LDAP_NO_MEMORY",               "The process has no memory left." },
    { LDAP_PARAM_ERROR,             "LDAP_PARAM_ERROR",             "A parameter of the request is invalid." },
    { LDAP_USER_CANCELLED,          "LDAP_USER_CANCELLED",          "The user stopped the operation." },
    { LDAP_FILTER_ERROR,            "LDAP_FILTER_ERROR",            "The filter is malformed; nothing was sent." },
    { LDAP_AUTH_UNKNOWN,            "LDAP_AUTH_UNKNOWN",            "OpenLDAP does not know this way to authenticate." },
    { LDAP_TIMEOUT,                 "LDAP_TIMEOUT",                 "The server did not respond in time." },
    { LDAP_DECODING_ERROR,          "LDAP_DECODING_ERROR",          "The response is malformed." },
    { LDAP_ENCODING_ERROR,          "LDAP_ENCODING_ERROR",          "The request cannot be encoded." },
    { LDAP_LOCAL_ERROR,             "LDAP_LOCAL_ERROR",             "Something failed in this process, or in SASL." },
    { LDAP_SERVER_DOWN,             "LDAP_SERVER_DOWN",             "The server cannot be reached, or the connection broke." },
    { LDAP_SUCCESS,                 "success",                      "The operation is complete." },
    { LDAP_OPERATIONS_ERROR,        "operationsError",              "The order of operations is wrong, as a search before the bind that the server wants." },
    { LDAP_PROTOCOL_ERROR,          "protocolError",                "The server cannot read the request, or does not support the operation." },
    { LDAP_TIMELIMIT_EXCEEDED,      "timeLimitExceeded",            "The search took longer than the request or the server permits." },
    { LDAP_SIZELIMIT_EXCEEDED,      "sizeLimitExceeded",            "More entries match than the request or the server permits." },
    { LDAP_COMPARE_FALSE,           "compareFalse",                 "The entry does not have this value." },
    { LDAP_COMPARE_TRUE,            "compareTrue",                  "The entry has this value." },
    { LDAP_AUTH_METHOD_NOT_SUPPORTED, "authMethodNotSupported",     "The server does not support this way to authenticate." },
    { LDAP_STRONG_AUTH_REQUIRED,    "strongerAuthRequired",         "The server wants a stronger authentication, or TLS." },
    { LDAP_PARTIAL_RESULTS,         "partialResults",               "A referral of LDAPv2." },
    { LDAP_REFERRAL,                "referral",                     "Another server has the entry; the response says which." },
    { LDAP_ADMINLIMIT_EXCEEDED,     "adminLimitExceeded",           "The operation needs more than the server's administrator permits." },
    { LDAP_UNAVAILABLE_CRITICAL_EXTENSION, "unavailableCriticalExtension", "The server does not support a control that the request insists on." },
    { LDAP_CONFIDENTIALITY_REQUIRED, "confidentialityRequired",     "The server wants TLS." },
    { LDAP_SASL_BIND_IN_PROGRESS,   "saslBindInProgress",           "The authentication goes on." },
    { LDAP_NO_SUCH_ATTRIBUTE,       "noSuchAttribute",              "The entry does not have this attribute or value." },
    { LDAP_UNDEFINED_TYPE,          "undefinedAttributeType",       "The server's schema does not know the attribute type." },
    { LDAP_INAPPROPRIATE_MATCHING,  "inappropriateMatching",        "The attribute type cannot be compared in this way." },
    { LDAP_CONSTRAINT_VIOLATION,    "constraintViolation",          "The value breaks a rule of the server, such as its length or password policy." },
    { LDAP_TYPE_OR_VALUE_EXISTS,    "attributeOrValueExists",       "The entry has this attribute or value already." },
    { LDAP_INVALID_SYNTAX,          "invalidAttributeSyntax",       "The value does not have the syntax of its attribute type." },
    { LDAP_NO_SUCH_OBJECT,          "noSuchObject",                 "The entry does not exist, or this identity may not know of it." },
    { LDAP_ALIAS_PROBLEM,           "aliasProblem",                 "An alias names no entry." },
    { LDAP_INVALID_DN_SYNTAX,       "invalidDNSyntax",              "The DN is malformed." },
    { LDAP_IS_LEAF,                 "isLeaf",                       "The entry can have none below it (not in use since LDAPv3)." },
    { LDAP_ALIAS_DEREF_PROBLEM,     "aliasDereferencingProblem",    "An alias could not be followed, or may not be." },
    { LDAP_INAPPROPRIATE_AUTH,      "inappropriateAuthentication",  "The entry cannot authenticate in this way; it may have no password." },
    { LDAP_INVALID_CREDENTIALS,     "invalidCredentials",           "The bind DN or its password is wrong." },
    { LDAP_INSUFFICIENT_ACCESS,     "insufficientAccessRights",     "This identity may not do that." },
    { LDAP_BUSY,                    "busy",                         "The server is busy; try again later." },
    { LDAP_UNAVAILABLE,             "unavailable",                  "The server is shutting down, or a part of it is offline." },
    { LDAP_UNWILLING_TO_PERFORM,    "unwillingToPerform",           "The server refuses by its configuration; its text says why." },
    { LDAP_LOOP_DETECT,             "loopDetect",                   "Aliases or referrals lead back to where they began." },
    { 60,                           "sortControlMissing",           "The list view needs a sort." },
    { 61,                           "offsetRangeError",             "The list view begins beyond the entries." },
    { LDAP_NAMING_VIOLATION,        "namingViolation",              "The server's schema does not permit this name here." },
    { LDAP_OBJECT_CLASS_VIOLATION,  "objectClassViolation",         "The entry would lack an attribute that its classes need, or have one that they do not permit." },
    { LDAP_NOT_ALLOWED_ON_NONLEAF,  "notAllowedOnNonLeaf",          "The entry has entries below it." },
    { LDAP_NOT_ALLOWED_ON_RDN,      "notAllowedOnRDN",              "The value is a part of the entry's name; rename the entry." },
    { LDAP_ALREADY_EXISTS,          "entryAlreadyExists",           "There is an entry with this DN." },
    { LDAP_NO_OBJECT_CLASS_MODS,    "objectClassModsProhibited",    "The structural class of an entry cannot change." },
    { LDAP_RESULTS_TOO_LARGE,       "resultsTooLarge",              "The response is larger than the server permits (connectionless LDAP)." },
    { LDAP_AFFECTS_MULTIPLE_DSAS,   "affectsMultipleDSAs",          "The operation concerns several servers." },
    { LDAP_VLV_ERROR,               "virtualListViewError",         "The list view cannot be made." },
    { LDAP_OTHER,                   "other",                        "Something failed in the server; its text or log says what." },
    { LDAP_CUP_RESOURCES_EXHAUSTED, "lcupResourcesExhausted",       "The server cannot track more changes." },
    { LDAP_CUP_SECURITY_VIOLATION,  "lcupSecurityViolation",        "The tracking of changes is not permitted." },
    { LDAP_CUP_INVALID_DATA,        "lcupInvalidData",              "The server does not accept the state of changes." },
    { LDAP_CUP_UNSUPPORTED_SCHEME,  "lcupUnsupportedScheme",        "The server does not support this form of tracking." },
    { LDAP_CUP_RELOAD_REQUIRED,     "lcupReloadRequired",           "The changes must be read from the beginning." },
    { LDAP_CANCELLED,               "canceled",                     "The operation was canceled." },
    { LDAP_NO_SUCH_OPERATION,       "noSuchOperation",              "The operation to cancel is not in progress." },
    { LDAP_TOO_LATE,                "tooLate",                      "The operation is too far to cancel it." },
    { LDAP_CANNOT_CANCEL,           "cannotCancel",                 "The operation cannot be canceled." },
    { LDAP_ASSERTION_FAILED,        "assertionFailed",              "The entry does not match the filter of the assertion." },
    { LDAP_PROXIED_AUTHORIZATION_DENIED, "authorizationDenied",     "This identity may not act as the other one." },
    { LDAP_SYNC_REFRESH_REQUIRED,   "e-syncRefreshRequired",        "The copy must be refreshed before it is synchronized." },
};
// clang-format on

constexpr bool isAscending()
{
    for (std::size_t i = 1; i < std::size(codes); ++i) {
        if (codes[i - 1].value >= codes[i].value) {
            return false;
        }
    }
    return true;
}
static_assert(isAscending(), "find() searches by halves");

/// Whether OpenLDAP has no text for a code: "Unknown error", "Unknown API error" and so on.
bool isUnknown(std::string_view text)
{
    constexpr std::string_view end = " error";
    return text.substr(0, 7) == "Unknown" && text.size() > end.size() &&
           text.substr(text.size() - end.size()) == end;
}

} // namespace

std::vector<Code> LDAPResultCodes::all() { return {std::begin(codes), std::end(codes)}; }

Code const* LDAPResultCodes::find(int value)
{
    auto const* const found =
        std::lower_bound(std::begin(codes), std::end(codes), value,
                         [](Code const& code, int wanted) { return code.value < wanted; });
    return found != std::end(codes) && found->value == value ? found : nullptr;
}

Code const* LDAPResultCodes::find(std::string const& name)
{
    auto const* const found =
        std::find_if(std::begin(codes), std::end(codes),
                     [&name](Code const& code) { return isSame(code.name, name); });
    return found != std::end(codes) ? found : nullptr;
}

std::string LDAPResultCodes::text(int value)
{
    std::string_view words = ldap_err2string(value);
    Code const* const code = find(value);
    if (code != nullptr && isUnknown(words)) {
        words = code->name;
    }
    return std::string(words) + " (" + std::to_string(value) + ')';
}

} // namespace Solvane

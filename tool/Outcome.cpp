// The tables of outcomes.
#include "Outcome.h"

#include "OpenLDAP.h"

#include <algorithm>
#include <iterator>

#include <sysexits.h>

namespace Solvane::Tool {

namespace {

struct CodeVerdict {
    int code;
    Verdict verdict;
};

constexpr char narrow[] = "make the template narrower or raise the server's limit";
constexpr char wait[] = "try again later";
constexpr char askAnother[] = "ask the server that holds the data (-H)";
constexpr char writeDn[] = "write -b and -D as DNs, as in ou=people,dc=example,dc=com";
constexpr char checkFilter[] = "check the template with 'solvane-ldap expand'";
constexpr char checkRights[] = "bind as somebody with the right to read it (-D)";
constexpr char checkPassword[] = "check -D and the password";
constexpr char useTls[] = "use ldaps:// in -H";
constexpr char checkAliases[] = "mend the alias or search with -a never";

// clang-format off
constexpr CodeVerdict verdicts[] = {
    { LDAP_FILTER_ERROR,             { Outcome::badInput,      checkFilter } },
    { LDAP_NO_SUCH_ATTRIBUTE,        { Outcome::badInput,      checkFilter } },
    { LDAP_UNDEFINED_TYPE,           { Outcome::badInput,      checkFilter } },
    { LDAP_INAPPROPRIATE_MATCHING,   { Outcome::badInput,      checkFilter } },
    { LDAP_CONSTRAINT_VIOLATION,     { Outcome::badInput,      checkFilter } },
    { LDAP_TYPE_OR_VALUE_EXISTS,     { Outcome::badInput,      checkFilter } },
    { LDAP_INVALID_SYNTAX,           { Outcome::badInput,      checkFilter } },
    { LDAP_INVALID_DN_SYNTAX,        { Outcome::badInput,      writeDn } },
    { LDAP_REFERRAL,                 { Outcome::refused,       askAnother } },
    { LDAP_PARTIAL_RESULTS,          { Outcome::refused,       askAnother } },
    { LDAP_UNWILLING_TO_PERFORM,     { Outcome::refused,       "ask the server's administrator" } },
    { LDAP_TIMELIMIT_EXCEEDED,       { Outcome::tryLater,      narrow } },
    { LDAP_SIZELIMIT_EXCEEDED,       { Outcome::tryLater,      narrow } },
    { LDAP_ADMINLIMIT_EXCEEDED,      { Outcome::tryLater,      narrow } },
    { LDAP_AUTH_METHOD_NOT_SUPPORTED,{ Outcome::denied,        "the server takes no simple bind" } },
    { LDAP_STRONG_AUTH_REQUIRED,     { Outcome::denied,        useTls } },
    { LDAP_CONFIDENTIALITY_REQUIRED, { Outcome::denied,        useTls } },
    { LDAP_INAPPROPRIATE_AUTH,       { Outcome::denied,        "bind with a DN and password (-D)" } },
    { LDAP_INVALID_CREDENTIALS,      { Outcome::denied,        checkPassword } },
    { LDAP_INSUFFICIENT_ACCESS,      { Outcome::denied,        checkRights } },
    { LDAP_PROTOCOL_ERROR,           { Outcome::configuration, "choose another protocol version (-P)" } },
    { LDAP_NO_SUCH_OBJECT,           { Outcome::configuration, "correct the base (-b)" } },
    { LDAP_ALIAS_PROBLEM,            { Outcome::configuration, checkAliases } },
    { LDAP_ALIAS_DEREF_PROBLEM,      { Outcome::configuration, checkAliases } },
};
// clang-format on

} // namespace

int exitStatusOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::found:
        return EX_OK;
    case Outcome::notFound:
        return 1;
    case Outcome::badInput:
        return EX_DATAERR;
    case Outcome::refused:
        return EX_UNAVAILABLE;
    case Outcome::tryLater:
        return EX_TEMPFAIL;
    case Outcome::denied:
        return EX_NOPERM;
    case Outcome::configuration:
        return EX_CONFIG;
    case Outcome::usage:
        return EX_USAGE;
    case Outcome::outputFailed:
        return EX_IOERR;
    case Outcome::internal:
        break;
    }
    return EX_SOFTWARE;
}

Outcome worse(Outcome left, Outcome right) { return std::max(left, right); }

Verdict verdictOnSearch(int code)
{
    auto const* const known =
        std::find_if(std::begin(verdicts), std::end(verdicts),
                     [code](CodeVerdict const& candidate) { return candidate.code == code; });
    // What is not known to last is worth another try: it must not bounce mail.
    return known != std::end(verdicts) ? known->verdict : Verdict{Outcome::tryLater, wait};
}

Verdict verdictOnBind(int code)
{
    return code == LDAP_NO_SUCH_OBJECT ? Verdict{Outcome::denied, checkPassword}
                                       : verdictOnSearch(code);
}

} // namespace Solvane::Tool

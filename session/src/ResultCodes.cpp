// The table of result codes and outcomes.
#include <solvane/session/ResultCodes.h>

#include <solvane/ldap/LDAPResultCodes.h>
#include <solvane/session/PlainText.h>

#include "OpenLDAP.h"

#include <algorithm>
#include <iterator>

namespace Solvane::Lookup {

namespace {

struct Meaning {
    int code;
    Outcome outcome;
};

// clang-format off
constexpr Meaning meanings[] = {
    { LDAP_SUCCESS,                    Outcome::Found         },
    // temporary: try again, or another server
    { LDAP_SERVER_DOWN,                Outcome::TryLater      },
    { LDAP_TIMEOUT,                    Outcome::TryLater      },
    { LDAP_TIMELIMIT_EXCEEDED,         Outcome::TryLater      },
    { LDAP_SIZELIMIT_EXCEEDED,         Outcome::TryLater      },
    { LDAP_ADMINLIMIT_EXCEEDED,        Outcome::TryLater      },
    { LDAP_BUSY,                       Outcome::TryLater      },
    { LDAP_UNAVAILABLE,                Outcome::TryLater      },
    { LDAP_OTHER,                      Outcome::TryLater      },
    // the server refuses, at least for this identity
    { LDAP_CONNECT_ERROR,              Outcome::Refused       }, // the certificate is not accepted
    { LDAP_AUTH_METHOD_NOT_SUPPORTED,  Outcome::Refused       },
    { LDAP_STRONG_AUTH_REQUIRED,       Outcome::Refused       },
    { LDAP_PARTIAL_RESULTS,            Outcome::Refused       }, // a referral of version 2
    { LDAP_REFERRAL,                   Outcome::Refused       },
    { LDAP_CONFIDENTIALITY_REQUIRED,   Outcome::Refused       },
    { LDAP_INAPPROPRIATE_AUTH,         Outcome::Refused       },
    { LDAP_INVALID_CREDENTIALS,        Outcome::Refused       },
    { LDAP_INSUFFICIENT_ACCESS,        Outcome::Refused       },
    { LDAP_UNWILLING_TO_PERFORM,       Outcome::Refused       },
    // the request is wrong
    { LDAP_FILTER_ERROR,               Outcome::Misconfigured },
    { LDAP_PARAM_ERROR,                Outcome::Misconfigured },
    { LDAP_PROTOCOL_ERROR,             Outcome::Misconfigured },
    { LDAP_NO_SUCH_ATTRIBUTE,          Outcome::Misconfigured },
    { LDAP_UNDEFINED_TYPE,             Outcome::Misconfigured },
    { LDAP_INAPPROPRIATE_MATCHING,     Outcome::Misconfigured },
    { LDAP_CONSTRAINT_VIOLATION,       Outcome::Misconfigured },
    { LDAP_TYPE_OR_VALUE_EXISTS,       Outcome::Misconfigured },
    { LDAP_INVALID_SYNTAX,             Outcome::Misconfigured },
    { LDAP_NO_SUCH_OBJECT,             Outcome::Misconfigured }, // the base does not exist
    { LDAP_ALIAS_PROBLEM,              Outcome::Misconfigured },
    { LDAP_INVALID_DN_SYNTAX,          Outcome::Misconfigured },
    { LDAP_ALIAS_DEREF_PROBLEM,        Outcome::Misconfigured },
    { LDAP_NAMING_VIOLATION,           Outcome::Misconfigured },
    { LDAP_OBJECT_CLASS_VIOLATION,     Outcome::Misconfigured },
    { LDAP_NOT_ALLOWED_ON_NONLEAF,     Outcome::Misconfigured },
    { LDAP_NOT_ALLOWED_ON_RDN,         Outcome::Misconfigured },
    { LDAP_NO_OBJECT_CLASS_MODS,       Outcome::Misconfigured },
    { LDAP_AFFECTS_MULTIPLE_DSAS,      Outcome::Misconfigured },
};
// clang-format on

} // namespace

Outcome outcomeOfSearch(int code)
{
    auto const* const known =
        std::find_if(std::begin(meanings), std::end(meanings),
                     [code](Meaning const& candidate) { return candidate.code == code; });
    // An unknown code may be temporary: defer, so that mail does not bounce.
    return known != std::end(meanings) ? known->outcome : Outcome::TryLater;
}

Outcome outcomeOfBind(int code)
{
    return code == LDAP_NO_SUCH_OBJECT ? Outcome::Refused : outcomeOfSearch(code);
}

bool speaksOfServer(int code)
{
    switch (code) {
    case LDAP_SERVER_DOWN:
    case LDAP_DECODING_ERROR:
    case LDAP_TIMEOUT:
    case LDAP_CONNECT_ERROR: // the certificate is not accepted
    case LDAP_OPERATIONS_ERROR:
    case LDAP_PROTOCOL_ERROR:
    case LDAP_TIMELIMIT_EXCEEDED:
    case LDAP_ADMINLIMIT_EXCEEDED:
    case LDAP_NO_SUCH_OBJECT: // the base may not be replicated there
    case LDAP_INSUFFICIENT_ACCESS:
    case LDAP_BUSY:
    case LDAP_UNAVAILABLE:
    case LDAP_UNWILLING_TO_PERFORM:
    case LDAP_OTHER:
        return true;
    default:
        return false;
    }
}

bool speaksOfProcess(int code) { return code == LDAP_LOCAL_ERROR || code == LDAP_NO_MEMORY; }

std::string wordsFor(int code, std::string const& serverText)
{
    std::string words = LDAPResultCodes::text(code);
    if (!serverText.empty() && serverText != ldap_err2string(code)) {
        words += ": " + oneLine(serverText);
    }
    return words;
}

char const* name(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Found:
        return "found";
    case Outcome::NotFound:
        return "not found";
    case Outcome::Skipped:
        return "skipped";
    case Outcome::BadKey:
        return "bad key";
    case Outcome::TryLater:
        return "try later";
    case Outcome::Refused:
        return "refused";
    case Outcome::Misconfigured:
        return "misconfigured";
    }
    return "unknown";
}

} // namespace Solvane::Lookup

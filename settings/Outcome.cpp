// Maps result codes to outcomes, exit statuses and remedies.
#include "Outcome.h"

#include "OpenLDAP.h"

#include <solvane/lookup/Answer.h>

#include <algorithm>
#include <iterator>

#include <sysexits.h>

namespace Solvane::Tool {

namespace {

using Kind = Lookup::Outcome;

constexpr int certificateRefused = -11; // code of a Lookup::Verdict

constexpr int deniedCodes[] = {
    certificateRefused,      LDAP_AUTH_METHOD_NOT_SUPPORTED, LDAP_STRONG_AUTH_REQUIRED,
    LDAP_INAPPROPRIATE_AUTH, LDAP_CONFIDENTIALITY_REQUIRED,  LDAP_INVALID_CREDENTIALS,
    LDAP_INSUFFICIENT_ACCESS};

/// If refused, it comes from a bind with a DN that the server does not have.
constexpr int unknownBindDn = LDAP_NO_SUCH_OBJECT;

/// The input is wrong: a filter, a DN or an entry.
constexpr int badInputCodes[] = {
    LDAP_FILTER_ERROR,           LDAP_NO_SUCH_ATTRIBUTE,      LDAP_UNDEFINED_TYPE,
    LDAP_INAPPROPRIATE_MATCHING, LDAP_CONSTRAINT_VIOLATION,   LDAP_TYPE_OR_VALUE_EXISTS,
    LDAP_INVALID_SYNTAX,         LDAP_INVALID_DN_SYNTAX,      LDAP_NAMING_VIOLATION,
    LDAP_OBJECT_CLASS_VIOLATION, LDAP_NOT_ALLOWED_ON_NONLEAF, LDAP_NOT_ALLOWED_ON_RDN,
    LDAP_NO_OBJECT_CLASS_MODS,   LDAP_AFFECTS_MULTIPLE_DSAS};

constexpr int refusedCodes[] = {LDAP_REFERRAL, LDAP_PARTIAL_RESULTS, LDAP_UNWILLING_TO_PERFORM};

constexpr int configurationCodes[] = {LDAP_NO_SUCH_OBJECT, LDAP_PROTOCOL_ERROR, LDAP_ALIAS_PROBLEM,
                                      LDAP_ALIAS_DEREF_PROBLEM};

template <std::size_t count> bool holds(int const (&codes)[count], int code)
{
    return std::find(std::begin(codes), std::end(codes), code) != std::end(codes);
}

struct Remedy {
    int code;
    char const* text;
};

constexpr char narrow[] = "narrow the template or raise the limit";
constexpr char askAnother[] = "ask the server that holds the data (-H)";
constexpr char askAdministrator[] = "ask the server's administrator";
constexpr char checkTemplate[] = "check the template with 'solvane-ldap expand --lint'";
constexpr char checkPassword[] = "check -D and the password";
constexpr char nameAuthorities[] =
    "give the CA's file with --tls-ca or install the package ca-certificates";
constexpr char correctClientCertificate[] = "correct --tls-cert and --tls-key";
constexpr char presentCertificate[] = "give a client certificate with --tls-cert and --tls-key";
constexpr char agreeOnTls[] =
    "compare --tls-min and --tls-ciphers with the versions and ciphers of the server";
constexpr char configureCertificate[] = "configure a certificate on the server";
constexpr char useVersion3[] = "use version 3 (-P 3)";
constexpr char useTls[] = "use ldaps:// in -H";
constexpr char bindOtherwise[] = "bind with a DN and password (-D)";
constexpr char mendAlias[] = "correct the alias or search with -a never";
constexpr char checkEntry[] = "correct the entry, or the server's schema";
constexpr char checkServer[] =
    "check that the server is running, and the scheme, host and port in -H";

// clang-format off
constexpr Remedy searchRemedies[] = {
    { LDAP_SERVER_DOWN,               checkServer },
    { LDAP_TIMEOUT,                   "try again later or raise -o nettimeout or --deadline" },
    { certificateRefused,             "run 'solvane-ldap check' for details, then correct --tls-ca or the host name in -H" },
    { LDAP_AUTH_UNKNOWN,              "check the host name in -H, its principal ldap/HOST, and the KDC" },
    { LDAP_FILTER_ERROR,              checkTemplate },
    { LDAP_NO_SUCH_ATTRIBUTE,         checkTemplate },
    { LDAP_UNDEFINED_TYPE,            checkTemplate },
    { LDAP_INAPPROPRIATE_MATCHING,    checkTemplate },
    { LDAP_CONSTRAINT_VIOLATION,      checkTemplate },
    { LDAP_TYPE_OR_VALUE_EXISTS,      checkTemplate },
    { LDAP_INVALID_SYNTAX,            checkTemplate },
    { LDAP_INVALID_DN_SYNTAX,         "write -b and -D as DNs, as in ou=people,dc=example,dc=com" },
    { LDAP_REFERRAL,                  askAnother },
    { LDAP_PARTIAL_RESULTS,           askAnother },
    { LDAP_UNWILLING_TO_PERFORM,      askAdministrator },
    { LDAP_TIMELIMIT_EXCEEDED,        narrow },
    { LDAP_SIZELIMIT_EXCEEDED,        narrow },
    { LDAP_ADMINLIMIT_EXCEEDED,       narrow },
    { LDAP_AUTH_METHOD_NOT_SUPPORTED, "use a server that accepts simple binds" },
    { LDAP_STRONG_AUTH_REQUIRED,      useTls },
    { LDAP_CONFIDENTIALITY_REQUIRED,  useTls },
    { LDAP_INAPPROPRIATE_AUTH,        bindOtherwise },
    { LDAP_INVALID_CREDENTIALS,       checkPassword },
    { LDAP_INSUFFICIENT_ACCESS,       "bind with a DN that may read it (-D)" },
    { LDAP_OPERATIONS_ERROR,          "try again later; if the server requires a bind, use -D" },
    { LDAP_PROTOCOL_ERROR,            "choose another protocol version (-P)" },
    { LDAP_NO_SUCH_OBJECT,            "correct the base (-b)" },
    { LDAP_ALIAS_PROBLEM,             mendAlias },
    { LDAP_ALIAS_DEREF_PROBLEM,       mendAlias },
};
constexpr Remedy addRemedies[] = {
    { LDAP_SERVER_DOWN,               checkServer },
    { LDAP_PARAM_ERROR,               "correct the record" },
    { LDAP_INVALID_DN_SYNTAX,         "correct the DN" },
    { LDAP_NO_SUCH_OBJECT,            "add the entry above it first, or correct the DN" },
    { LDAP_ALREADY_EXISTS,            "nothing was changed" },
    { LDAP_REFERRAL,                  "add it on the server that holds the data (-H)" },
    { LDAP_UNWILLING_TO_PERFORM,      askAdministrator },
    { LDAP_STRONG_AUTH_REQUIRED,      bindOtherwise },
    { LDAP_CONFIDENTIALITY_REQUIRED,  useTls },
    { LDAP_INVALID_CREDENTIALS,       checkPassword },
    { LDAP_INSUFFICIENT_ACCESS,       "bind with a DN that may write there (-D)" },
};
// clang-format on

/// A cause that a text names, and its remedy.
struct Cause {
    char const* words;
    char const* remedy;
};

// The codes alone do not tell these causes apart. If a text names several, the first one counts.
// clang-format off
constexpr Cause settingCauses[] = {
    { "no Kerberos ticket",                   "get a ticket with kinit, or name a keytab in KRB5_CLIENT_KTNAME" },
    { "the mechanism GSSAPI",                 "install it" },
    { "the system's CA bundle",               nameAuthorities },
    { "the CA file '",                        nameAuthorities },
    { "the CA folder '",                      "correct --tls-ca-dir" },
    { "the CRL file '",                       "correct --tls-crl" },
    { "the client certificate has no key",    "give its key with --tls-key" },
    { "the client certificate is missing",    "give it with --tls-cert" },
    { "the client certificate '",             correctClientCertificate },
    { "the certificate file '",               "correct --tls-cert" },
    { "the key file '",                       "correct --tls-key" },
    { "the cipher suite '",                   "correct --tls-ciphers" },
    { "the path of the socket",               "correct the path in -H" },
    { "on a UNIX socket",                     "leave StartTLS (-Z) out" },
    { "TLS from the first byte",              "use StartTLS (-Z) with ldap:// only" },
    { "StartTLS needs LDAPv3",                useVersion3 },
    { "a SASL bind needs LDAPv3",             useVersion3 },
    { "SASL EXTERNAL needs",                  presentCertificate },
    { "an empty password",                    "give the password of the bind DN" },
};
constexpr Cause refusalCauses[] = { // what the server has against this side
    { "it requested a client certificate",    presentCertificate },
    { "may not accept the client certificate",
      "use a client certificate that is valid and signed by an authority of the server (--tls-cert)" },
    { "the server does not speak TLS",        "correct the scheme or the port in -H" },
    { "the server refuses TLS",               agreeOnTls },
    { "no common TLS parameters",             agreeOnTls },
};
constexpr Cause trustCauses[] = { // what this side has against the server
    { "follows the response to StartTLS",     "find out who injects it, or use ldaps://" },
    { "the server sent no certificate",       configureCertificate },
    { "the server sent an invalid",           configureCertificate },
    { "the certificate does not match",       "use one of the certificate's names in -H" },
    { "self-signed",                          "give the certificate's file with --tls-ca" },
    { "signed by an unknown authority",       "give the CA's file with --tls-ca" },
    { "that is not a CA",                     "have the server's certificate signed by a CA" },
    { "the revocation list is out of date",   "fetch the authority's new revocation list (--tls-crl)" },
    { "the revocation list is dated",         "correct the clock of this host, or fetch another revocation list (--tls-crl)" },
    { "revoked",                              "replace the server's certificate: its authority has revoked it" },
    { "expired on",                           "renew the certificate that has expired" },
    { "not valid before",                     "correct the clock of this host, or the certificate" },
    { "too weak",                             "replace the certificate by one with a stronger key and signature" },
    { "not valid for servers",                "replace the server's certificate by one for servers" },
    { "invalid signature",                    "replace the server's certificate" },
};
// clang-format on

/// The remedy of the first cause that a text names; `other` if it names none.
template <std::size_t count>
char const* remedyIn(Cause const (&causes)[count], std::string const& text, char const* other)
{
    auto const* const named =
        std::find_if(std::begin(causes), std::end(causes), [&text](Cause const& cause) {
            return text.find(cause.words) != std::string::npos;
        });
    return named != std::end(causes) ? named->remedy : other;
}

template <std::size_t count>
char const* remedyIn(Remedy const (&remedies)[count], int code, char const* other)
{
    auto const* const known =
        std::find_if(std::begin(remedies), std::end(remedies),
                     [code](Remedy const& candidate) { return candidate.code == code; });
    return known != std::end(remedies) ? known->text : other;
}

Outcome outcomeOf(Kind kind, int code)
{
    switch (kind) {
    case Kind::Found:
        return Outcome::found;
    case Kind::NotFound:
    case Kind::Skipped:
        return Outcome::notFound;
    case Kind::BadKey:
        return Outcome::badInput;
    case Kind::TryLater:
        return Outcome::tryLater;
    case Kind::Refused:
        return holds(deniedCodes, code) || code == unknownBindDn ? Outcome::denied
                                                                 : Outcome::refused;
    case Kind::Misconfigured:
        break;
    }
    return holds(badInputCodes, code) ? Outcome::badInput : Outcome::configuration;
}

char const* remedyFor(Kind kind, int code)
{
    switch (kind) {
    case Kind::Found:
    case Kind::NotFound:
    case Kind::Skipped:
        return "";
    case Kind::BadKey:
        return "correct the address";
    case Kind::TryLater:
        return remedyIn(searchRemedies, code, "try again later");
    case Kind::Refused:
        return code == unknownBindDn ? checkPassword
                                     : remedyIn(searchRemedies, code, askAdministrator);
    case Kind::Misconfigured:
        break;
    }
    return remedyIn(searchRemedies, code, "correct the setting");
}

} // namespace

int exitStatusOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::found:
        return EX_OK;
    case Outcome::notFound:
        return 1;
    case Outcome::exists:
        return EX_CANTCREAT;
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

Outcome outcomeOf(Lookup::Answer const& answer) { return outcomeOf(answer.outcome, answer.code); }

Outcome outcomeOf(Lookup::Verdict const& verdict)
{
    return outcomeOf(verdict.outcome, verdict.code);
}

Outcome outcomeOfAdd(int code)
{
    if (code == LDAP_SUCCESS) {
        return Outcome::found;
    }
    if (code == LDAP_ALREADY_EXISTS) {
        return Outcome::exists;
    }
    if (holds(deniedCodes, code)) {
        return Outcome::denied;
    }
    if (holds(badInputCodes, code) || code == LDAP_PARAM_ERROR) { // an invalid record
        return Outcome::badInput;
    }
    if (holds(refusedCodes, code)) {
        return Outcome::refused;
    }
    // Any other code may be temporary.
    return holds(configurationCodes, code) ? Outcome::configuration : Outcome::tryLater;
}

char const* remedyFor(Lookup::Answer const& answer)
{
    return remedyFor(Lookup::Verdict{answer.outcome, answer.code, answer.text});
}

char const* remedyFor(Lookup::Verdict const& verdict)
{
    char const* const remedy = remedyFor(verdict.outcome, verdict.code);
    switch (verdict.code) {
    case LDAP_PARAM_ERROR:
        return remedyIn(settingCauses, verdict.text, remedy);
    case certificateRefused:
        return remedyIn(refusalCauses, verdict.text, remedyIn(trustCauses, verdict.text, remedy));
    case LDAP_SERVER_DOWN:
        return remedyIn(refusalCauses, verdict.text, remedy);
    default:
        return remedy;
    }
}

char const* remedyForAdd(int code)
{
    switch (outcomeOfAdd(code)) {
    case Outcome::found:
        return "";
    case Outcome::badInput:
        return remedyIn(addRemedies, code, checkEntry);
    case Outcome::tryLater:
        return remedyIn(addRemedies, code, "try again later");
    default:
        return remedyIn(addRemedies, code, askAdministrator);
    }
}

} // namespace Solvane::Tool

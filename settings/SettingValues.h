// Converts the texts of options and settings files into values, and back.
#ifndef SOLVANE_TOOL_SETTING_VALUES_H
#define SOLVANE_TOOL_SETTING_VALUES_H

#include "Outcome.h"

#include <solvane/lookup/LDAPLookup.h>
#include <solvane/session/Address.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

/// Longest time limit: more would overflow OpenLDAP's milliseconds.
constexpr unsigned int longestSeconds = 2147483;
/// Largest limit that fits into a search request (RFC 4511 section 4.5.1).
constexpr unsigned int largestLimit = 2147483647;
constexpr unsigned int mostConnections = 1024;
constexpr unsigned int widestWindow = 65536;

/// The socket of a service: a UNIX socket, or an address with a port.
struct Endpoint {
    std::string path; ///< empty: `address` is set
    std::optional<Lookup::Address> address;

    /// As it is written: "unix:/run/users" or "inet:127.0.0.1:2000".
    std::string text() const;
};

// Each throws a Failure "usage" if the text is invalid. The message does not name the option or
// setting; `explainedBy` adds it.

unsigned int numberIn(std::string const& text, unsigned int least, unsigned int greatest);
/// The same as a function of the text alone.
inline auto numberBetween(unsigned int least, unsigned int greatest)
{
    return [=](std::string const& text) { return numberIn(text, least, greatest); };
}
/// Any text, unchanged.
inline std::string textIn(std::string const& text) { return text; }
/// A time limit in seconds, at least 1.
std::chrono::seconds durationIn(std::string const& text);
/// "yes" or "no".
bool booleanIn(std::string const& text);
/// The width in "ldif-wrap=WIDTH" or "ldif-wrap=no"; nothing if the text has another name.
std::optional<std::size_t> ldifWrapIn(std::string const& text);
/// The seconds in "nettimeout=SECONDS".
unsigned int networkTimeoutIn(std::string const& text);
LDAPConnection::Protocol protocolIn(std::string const& text);
LDAPSearch::Scope scopeIn(std::string const& text);
/// A name, as "never", or Postfix's number for it.
LDAPSearch::Deref dereferenceIn(std::string const& text);
Lookup::TlsVerify tlsVerifyIn(std::string const& text);
/// Postfix's "yes" and "no": full, or none.
Lookup::TlsVerify tlsRequireCertIn(std::string const& text);
Lookup::TlsVersion tlsVersionIn(std::string const& text);
/// The name of a mechanism in any case.
Lookup::Mechanism saslMechanismIn(std::string const& text);
/// "dn:..." or "u:...".
std::string authorizationIdIn(std::string const& text);
Lookup::References referencesIn(std::string const& text);
/// Seconds, also 0.
std::chrono::seconds holdIn(std::string const& text);
/// Addresses with or without a port, separated by commas or white space.
std::vector<std::string> nameServersIn(std::string const& text);
/// Names of address forms, separated by commas.
std::vector<LDAPLookup::Form> formsIn(std::string const& text);
/// The character between user and extension; 0 for an empty text.
char delimiterIn(std::string const& text);
/// Attribute descriptions, separated by commas or white space.
std::vector<std::string> attributesIn(std::string const& text);
/// A text with the specifiers of a result format.
std::string resultFormatIn(std::string const& text);
/// Whether the text can be a domain: neither a path, nor the name of a lookup table, nor an address.
bool isDomain(std::string const& text);
/// Domains separated by commas or white space; "@FILE" or "/FILE" in their place reads a file.
/// @throws Failure  also "configuration": the file cannot be read
std::vector<std::string> domainsIn(std::string const& text);
/// A DN, possibly empty, in UTF-8 without control characters.
std::string dnIn(std::string const& text);
/// The same, but not empty.
std::string bindDnIn(std::string const& text);
/// A template. Refuses specifiers of other programs ("%s", "%{user}"), which would be searched for
/// literally.
std::string ourTemplate(std::string const& text);

// The texts of values, as written in the settings file.

std::string textOf(bool value);
std::string textOf(char value); ///< empty for 0
std::string textOf(unsigned int value);
std::string textOf(std::size_t value);
std::string textOf(std::chrono::milliseconds value); ///< in seconds
std::string textOf(LDAPConnection::Protocol value);
std::string textOf(LDAPSearch::Scope value);
std::string textOf(LDAPSearch::Deref value);
std::string textOf(Lookup::TlsVerify value);
std::string textOf(Lookup::TlsVersion value); ///< empty if OpenLDAP's setting decides
std::string textOf(Lookup::Mechanism value);  ///< empty for a simple bind
std::string textOf(Lookup::References value);
std::string textOf(std::vector<LDAPLookup::Form> const& value);
std::string textOf(std::vector<std::string> const& value);
std::string const& textOf(std::string const& value);

/// Hosts and URIs separated by commas or white space. Commas inside a domain's URI
/// ("ldap+srv:///dc=example,dc=com") belong to it.
std::vector<std::string> serversIn(std::string const& text);

/// "unix:PATH" or "inet:ADDRESS:PORT", with an IPv6 address in brackets.
Endpoint endpointIn(std::string const& text);

/// The words of a text, separated by commas and white space.
std::vector<std::string> wordsIn(std::string_view text);

/// Calls `read`; prefixes a failure with `source` (an option, or a line of a file).
template <typename Read>
auto explainedBy(std::string const& source, Outcome outcome, Read const& read)
{
    try {
        return read();
    } catch (Failure const& failure) {
        // An unreadable file keeps its own outcome.
        throw Failure(failure.outcome() == Outcome::usage ? outcome : failure.outcome(),
                      source + ": " + failure.cause(), failure.remedy());
    }
}

} // namespace Solvane::Tool

#endif

// Texts of options and of settings files as the values they stand for.
#ifndef SOLVANE_TOOL_SETTING_VALUES_H
#define SOLVANE_TOOL_SETTING_VALUES_H

#include "Failure.h"

#include <solvane/lookup/LDAPLookup.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

/// Longest time that can be given: more would wrap in OpenLDAP's milliseconds.
constexpr unsigned int longestSeconds = 2147483;
/// Largest limit that fits into a search request (RFC 4511 section 4.5.1).
constexpr unsigned int largestLimit = 2147483647;
constexpr unsigned int mostConnections = 1024;
constexpr unsigned int widestWindow = 65536;

// Each throws Failure "usage" where the text is no such value; its cause does not say of which
// option or setting: `explainedBy` does.

unsigned int numberIn(std::string const& text, unsigned int least, unsigned int greatest);
/// The same as a function of the text.
inline auto numberBetween(unsigned int least, unsigned int greatest)
{
    return [=](std::string const& text) { return numberIn(text, least, greatest); };
}
/// Any text, as it is.
inline std::string textIn(std::string const& text) { return text; }
/// Seconds, as many as a time limit takes.
std::chrono::seconds durationIn(std::string const& text);
/// "yes" or "no".
bool booleanIn(std::string const& text);
/// Seconds behind "nettimeout=".
unsigned int networkTimeoutIn(std::string const& text);
LDAPConnection::Protocol protocolIn(std::string const& text);
LDAPSearch::Scope scopeIn(std::string const& text);
/// By name, as "never", or by number, as Postfix does.
LDAPSearch::Deref dereferenceIn(std::string const& text);
Lookup::TlsVerify tlsVerifyIn(std::string const& text);
Lookup::References referencesIn(std::string const& text);
/// Seconds, also none.
std::chrono::seconds holdIn(std::string const& text);
/// Addresses, with or without a port, separated by commas or blanks.
std::vector<std::string> nameServersIn(std::string const& text);
/// Address forms by their names, separated by commas.
std::vector<LDAPLookup::Form> formsIn(std::string const& text);
/// The character between user and extension; 0 for an empty text.
char delimiterIn(std::string const& text);
/// Attribute descriptions, separated by commas or blanks.
std::vector<std::string> attributesIn(std::string const& text);
/// Domains separated by commas or blanks; after '@' or with a leading '/', the name of a file of them.
/// @throws Failure  "configuration" besides: the file
std::vector<std::string> domainsIn(std::string const& text);
/// A DN that may be empty: a line of UTF-8 text.
std::string dnIn(std::string const& text);
/// The same, and not empty.
std::string bindDnIn(std::string const& text);
/// A template without the specifiers of Postfix's filters, which would be searched for as they are.
std::string ourTemplate(std::string const& text);

// The texts of values, as they are written in the settings file.

std::string textOf(bool value);
std::string textOf(char value); ///< empty for 0
std::string textOf(unsigned int value);
std::string textOf(std::size_t value);
std::string textOf(std::chrono::milliseconds value); ///< in seconds
std::string textOf(LDAPConnection::Protocol value);
std::string textOf(LDAPSearch::Scope value);
std::string textOf(LDAPSearch::Deref value);
std::string textOf(Lookup::TlsVerify value);
std::string textOf(Lookup::References value);
std::string textOf(std::vector<LDAPLookup::Form> const& value);
std::string textOf(std::vector<std::string> const& value);
std::string const& textOf(std::string const& value);

/// Hosts and URIs separated by commas or blanks; the commas of a domain's URI
/// ("ldap+srv:///dc=example,dc=com") separate none.
std::vector<std::string> serversIn(std::string const& text);

/// The words of a text, separated by commas and white space.
std::vector<std::string> wordsIn(std::string_view text);

/// Calls `read`; a failure of it is told as one of `source` (an option, or a line of a file).
template <typename Read>
auto explainedBy(std::string const& source, Outcome outcome, Read const& read)
{
    try {
        return read();
    } catch (Failure const& failure) {
        // A file that cannot be read stays what it is.
        throw Failure(failure.outcome() == Outcome::usage ? outcome : failure.outcome(),
                      source + ": " + failure.cause(), failure.remedy());
    }
}

} // namespace Solvane::Tool

#endif

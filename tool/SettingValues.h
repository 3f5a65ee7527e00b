// Texts of options and of settings files as the values they stand for.
#ifndef SOLVANE_TOOL_SETTING_VALUES_H
#define SOLVANE_TOOL_SETTING_VALUES_H

#include "Failure.h"

#include <solvane/lookup/LDAPLookup.h>

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
LDAPConnection::Protocol protocolIn(std::string const& text);
LDAPSearch::Scope scopeIn(std::string const& text);
/// By name, as "never", or by number, as Postfix does.
LDAPSearch::Deref dereferenceIn(std::string const& text);
Lookup::TlsVerify tlsVerifyIn(std::string const& text);
/// Address forms by their names, parted by commas.
std::vector<LDAPLookup::Form> formsIn(std::string const& text);
/// What parts user and extension; 0 for an empty text.
char delimiterIn(std::string const& text);
/// Attribute descriptions, parted by commas or blanks.
std::vector<std::string> attributesIn(std::string const& text);
/// Domains parted by commas or blanks; after '@' or with a leading '/', the name of a file of them.
/// @throws Failure  "configuration" besides: the file
std::vector<std::string> domainsIn(std::string const& text);
/// A DN that may be empty: a line of UTF-8 text.
std::string dnIn(std::string const& text);

/// The words of a text, parted by commas and white space.
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

// Attribute names: those that a filter names, and those that a server's schema knows.
#ifndef SOLVANE_TOOL_ATTRIBUTE_NAMES_H
#define SOLVANE_TOOL_ATTRIBUTE_NAMES_H

#include <solvane/session/Session.h>

#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/LDAPSchema.h>

#include <chrono>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// The attributes that a filter (RFC 4515) compares, in its order, without options such as ";lang-en". None
/// of an invalid filter.
std::vector<std::string> attributesInFilter(std::string const& filter);

/// Without its options; empty for what only stands for attributes, such as "*", "+" and "@person".
std::string attributeNameOf(std::string const& selector);

/// What is equal for all descriptions of one attribute: its OID, or an unknown name, and its options in
/// order; in lower case.
std::string attributeKey(LDAPSchema const& schema, std::string const& description);

/// The name in the schema that was probably meant; empty if none is similar. Case is ignored.
std::string similarAttribute(LDAPSchema const& schema, std::string const& name);

/// A server's schema (RFC 4512 section 4.2); empty if it is not readable.
/// @param session   a bound one
/// @param silence   longest time without a byte from the server
/// @param deadline  for each of the two searches
LDAPSchema schemaOf(Lookup::Session& session, std::chrono::milliseconds silence,
                    Lookup::Clock::time_point deadline);

/// The values of an attribute; empty if the entry lacks it.
std::vector<std::string> valuesOf(LDAPSearchResultEntry const& entry, std::string const& name);

} // namespace Solvane::Tool

#endif

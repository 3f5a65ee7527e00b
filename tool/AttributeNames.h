// Attribute names: those that a filter names, and those that a server's schema knows.
#ifndef SOLVANE_TOOL_ATTRIBUTE_NAMES_H
#define SOLVANE_TOOL_ATTRIBUTE_NAMES_H

#include <solvane/session/Session.h>

#include <solvane/ldap/LDAPResult.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// The attributes that a filter (RFC 4515) compares, in its order, without options such as ";lang-en". None
/// of an invalid filter.
std::vector<std::string> attributesInFilter(std::string const& filter);

/// Without its options; empty for what only stands for attributes, such as "*", "+" and "@person".
std::string attributeNameOf(std::string const& selector);

/// The attribute types of a schema. Case is ignored.
class AttributeNames {
public:
    /// Adds the names and the OID of a definition (RFC 4512 section 4.1.2); ignores an invalid one.
    void add(std::string const& definition);

    bool isEmpty() const { return m_names.empty(); }
    bool has(std::string const& name) const;
    /// What is equal for all descriptions of one attribute: its OID, or an unknown name, and its
    /// options in order.
    std::string keyOf(std::string const& description) const;
    /// Whether only the server may change the attribute (NO-USER-MODIFICATION).
    bool isServers(std::string const& description) const;
    /// The name that was probably meant; empty if none is similar.
    std::string similarTo(std::string const& name) const;

private:
    std::map<std::string, std::string> m_oids; ///< by names and OIDs, in lower case
    std::set<std::string> m_servers;           ///< OIDs that only the server may change
    std::vector<std::string> m_names;
};

/// The attributes of a server's schema (RFC 4512 section 4.2); none if it is not readable.
/// @param session   a bound one
/// @param silence   longest time without a byte from the server
/// @param deadline  for each of the two searches
AttributeNames schemaOf(Lookup::Session& session, std::chrono::milliseconds silence,
                        Lookup::Clock::time_point deadline);

/// The values of an attribute; empty if the entry lacks it.
std::vector<std::string> valuesOf(LDAPSearchResultEntry const& entry, std::string const& name);

} // namespace Solvane::Tool

#endif

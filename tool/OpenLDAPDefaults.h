// What OpenLDAP's configuration says: ldap.conf, ~/.ldaprc and the LDAP... environment variables.
#ifndef SOLVANE_TOOL_OPENLDAP_DEFAULTS_H
#define SOLVANE_TOOL_OPENLDAP_DEFAULTS_H

#include <string>
#include <vector>

namespace Solvane::Tool {

/// The servers of LDAPURI or URI; empty if neither is set.
std::vector<std::string> configuredUris();
/// The base of LDAPBASE or BASE; empty if neither is set.
std::string configuredBase();

} // namespace Solvane::Tool

#endif

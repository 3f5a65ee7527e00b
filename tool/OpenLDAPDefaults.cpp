// Asks OpenLDAP for its process-wide options.
#include "OpenLDAPDefaults.h"

#include "OpenLDAP.h"
#include "SettingValues.h"

#include <solvane/ldap/impl/OpenLDAPOwners.h>

namespace Solvane::Tool {

namespace {

std::string textOf(int option)
{
    LDAPCharBuffer text;
    ldap_get_option(nullptr, option, text.address());
    return text.get() == nullptr ? std::string() : std::string(text.get());
}

} // namespace

std::vector<std::string> configuredUris()
{
    // Without a setting, OpenLDAP has a URI of its own, with a scope that no setting keeps.
    constexpr char unset[] = "ldap://localhost:389/??base";
    std::string const uris = textOf(LDAP_OPT_URI);
    return uris == unset ? std::vector<std::string>() : serversIn(uris);
}

std::string configuredBase() { return textOf(LDAP_OPT_DEFBASE); }

} // namespace Solvane::Tool

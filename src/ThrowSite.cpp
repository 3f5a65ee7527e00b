// The throw protocol, written once.
#include "ThrowSite.h"

#include "OpenLDAP.h"

namespace Solvane {

LDAPException fault(ThrowSite const& site)
{
    return LDAPException("LDAPException", static_cast<int>(site.fault), site.unit, site.line,
                         static_cast<int>(site.stage));
}

LDAPException fault(ThrowSite const& site, std::string const& text)
{
    LDAPException exception = fault(site);
    exception.stringParameter(text);
    return exception;
}

LDAPException fault(ThrowSite const& site, Exception const& caught)
{
    LDAPException exception = fault(site);
    exception.cause(caught);
    return exception;
}

std::string openldapError(int rc, char const* work, std::string const& uri)
{
    return std::string("Error: '") + ldap_err2string(rc) + "' during " + work + uri;
}

} // namespace Solvane

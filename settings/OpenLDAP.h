// The only file of the tool that includes OpenLDAP's headers: result codes, URIs.
#ifndef SOLVANE_TOOL_OPENLDAP_H
#define SOLVANE_TOOL_OPENLDAP_H

#include <ldap.h>

#endif

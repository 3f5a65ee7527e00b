// The only file of the tool that includes OpenLDAP's headers: result codes, URIs, LDIF.
#ifndef SOLVANE_TOOL_OPENLDAP_H
#define SOLVANE_TOOL_OPENLDAP_H

#include <cstdio> // ldif.h names FILE and does not include it

#include <ldap.h>

#include <ldif.h>

#endif

// The one place of the lookup engine that includes OpenLDAP's headers.
#ifndef SOLVANE_LOOKUP_SRC_OPENLDAP_H
#define SOLVANE_LOOKUP_SRC_OPENLDAP_H

#include <ldap.h>

#endif

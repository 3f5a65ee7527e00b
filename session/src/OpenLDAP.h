// The only file of session/ that includes OpenLDAP's headers.
#ifndef SOLVANE_SESSION_SRC_OPENLDAP_H
#define SOLVANE_SESSION_SRC_OPENLDAP_H

#include <openldap.h> // ldap_init_fd; brings ldap.h

#endif

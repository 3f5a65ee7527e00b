/// @file
/// Bodies, adapters and owners of OpenLDAP memory, for request classes of your own.
#ifndef SOLVANE_LDAP_IMPL_H
#define SOLVANE_LDAP_IMPL_H

#include <solvane/ldap/impl/LDAPAdapters.h>
#include <solvane/ldap/impl/LDAPAddImpl.h>
#include <solvane/ldap/impl/LDAPAttributeImpl.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/LDAPSearchImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#endif

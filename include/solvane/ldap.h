/// @file
/// The whole public interface of the library.
///
/// @namespace Solvane
/// The object interface, `LDAPLookup` above it, and the runtime below.
#ifndef SOLVANE_LDAP_H
#define SOLVANE_LDAP_H

#include <solvane/ldap/DebugLogOpenLDAP.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPBinaryAdd.h>
#include <solvane/ldap/LDAPCompare.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPControls.h>
#include <solvane/ldap/LDAPDelete.h>
#include <solvane/ldap/LDAPDistinguishedName.h>
#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPExtended.h>
#include <solvane/ldap/LDAPFilter.h>
#include <solvane/ldap/LDAPLdif.h>
#include <solvane/ldap/LDAPModify.h>
#include <solvane/ldap/LDAPOperation.h>
#include <solvane/ldap/LDAPQuery.h>
#include <solvane/ldap/LDAPRename.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/LDAPResultCodes.h>
#include <solvane/ldap/LDAPSchema.h>
#include <solvane/ldap/LDAPSearchStream.h>
#include <solvane/ldap/LDAPUtil.h>
#include <solvane/ldap/RefCounted.h>

// The parts of the runtime that the interface uses.
#include <solvart/Buffer.h>
#include <solvart/EmailAddress.h>
#include <solvart/Exception.h>
#include <solvart/Uri.h>

#endif

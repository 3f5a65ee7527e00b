/// @file
/// Symbol visibility of the library.
#ifndef SOLVANE_LDAP_EXPORT_H
#define SOLVANE_LDAP_EXPORT_H

/// Marks what the shared library exports.
#define SOLVANE_LDAP_EXPORT __attribute__((visibility("default")))

#endif

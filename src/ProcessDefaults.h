// OpenLDAP's process-wide options, which it copies into each session.
#ifndef SOLVANE_LDAP_SRC_PROCESS_DEFAULTS_H
#define SOLVANE_LDAP_SRC_PROCESS_DEFAULTS_H

#include <solvane/ldap/Export.h>

#include <mutex>

namespace Solvane {

/// To be held while OpenLDAP creates a session, or its process-wide options are read or set: it initialises
/// itself without a lock, and copies its TLS policy without one. One mutex for both libraries. It is free
/// in a child process, and usable during static destruction.
SOLVANE_LDAP_EXPORT std::mutex& processDefaults();

/// Initialises OpenLDAP's TLS library. OpenLDAP itself does it at the first handshake, without a lock.
/// Called with processDefaults() held.
void initializeTls();

} // namespace Solvane

#endif

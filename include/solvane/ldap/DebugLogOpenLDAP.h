/// @file
/// OpenLDAP's own debug output.
#ifndef SOLVANE_LDAP_DEBUG_LOG_OPENLDAP_H
#define SOLVANE_LDAP_DEBUG_LOG_OPENLDAP_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/RefCounted.h>

#include <cstdio>

namespace Solvane {

/// Switches OpenLDAP's debug output on and off for the whole process, and writes it to
/// "/var/spool/crashlog/ldap.log", whose directory must exist. Not thread-safe.
/// @warning High levels print passwords.
class SOLVANE_LDAP_EXPORT DebugLogOpenLDAP : public NonCopyable {
public:
    /// Changes nothing.
    DebugLogOpenLDAP();
    /// Neither closes the log nor resets the levels: call `level(0, 0)` first.
    virtual ~DebugLogOpenLDAP();

    /// Sets the debug levels (`LDAP_DEBUG_...`) of liblber and libldap.
    ///
    /// A level above 0 opens and truncates the log unless it is open; if that fails, the output goes to
    /// standard error. If both levels are 0 or below, the log is closed. The levels are passed to
    /// OpenLDAP in any case; for liblber, -1 means all levels.
    /// @return the result of the last OpenLDAP call, or of closing the log; 0 is success
    int level(int berLevel, int ldapLevel);

private:
    int switchOn(int berLevel, int ldapLevel);
    int switchOff(int berLevel, int ldapLevel);

    FILE* m_file;
};

} // namespace Solvane

#endif

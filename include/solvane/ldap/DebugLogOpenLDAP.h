/// @file
/// OpenLDAP's own debug output.
#ifndef SOLVANE_LDAP_DEBUG_LOG_OPENLDAP_H
#define SOLVANE_LDAP_DEBUG_LOG_OPENLDAP_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/RefCounted.h>

#include <cstdio>

namespace Solvane {

/// Switches OpenLDAP's debug output on and off, for the whole process, and sends it to
/// "/var/spool/crashlog/ldap.log", whose directory must exist. One thread at a time.
/// @warning High levels print passwords.
class SOLVANE_LDAP_EXPORT DebugLogOpenLDAP : public NonCopyable {
public:
    /// Changes nothing yet.
    DebugLogOpenLDAP();
    /// Neither closes the log nor resets the levels: call `level(0, 0)` first.
    virtual ~DebugLogOpenLDAP();

    /// Sets the debug levels (`LDAP_DEBUG_...`) of liblber and libldap.
    ///
    /// A level above 0 opens the log anew, unless it is open; where that fails, the output goes to
    /// standard error. Both levels at 0 or below close it; they are passed on all the same, and to
    /// liblber -1 means everything.
    /// @return the result of the last call made: of libldap's option, or of closing the log
    int level(int berLevel, int ldapLevel);

private:
    int switchOn(int berLevel, int ldapLevel);
    int switchOff(int berLevel, int ldapLevel);

    FILE* m_file;
};

} // namespace Solvane

#endif

// The switch for OpenLDAP's own debug output. Part of unit "Utility".
#include <solvane/ldap/DebugLogOpenLDAP.h>

#include "OpenLDAP.h"

#include <cstdio>

namespace Solvane {

namespace {

constexpr char logPath[] = "/var/spool/crashlog/ldap.log";

int setLevels(int berLevel, int ldapLevel)
{
    ber_set_option(nullptr, LBER_OPT_DEBUG_LEVEL, &berLevel);
    return ldap_set_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &ldapLevel);
}

} // namespace

DebugLogOpenLDAP::DebugLogOpenLDAP() : m_file(nullptr) {}
DebugLogOpenLDAP::~DebugLogOpenLDAP() = default;

int DebugLogOpenLDAP::level(int berLevel, int ldapLevel)
{
    return berLevel > 0 || ldapLevel > 0 ? switchOn(berLevel, ldapLevel)
                                         : switchOff(berLevel, ldapLevel);
}

int DebugLogOpenLDAP::switchOn(int berLevel, int ldapLevel)
{
    if (m_file == nullptr) {
        m_file = fopen(logPath, "w");
        // May be null: without a file, liblber uses its default stream.
        ber_set_option(nullptr, LBER_OPT_LOG_PRINT_FILE, m_file);
    }
    return setLevels(berLevel, ldapLevel);
}

int DebugLogOpenLDAP::switchOff(int berLevel, int ldapLevel)
{
    int const rc = setLevels(berLevel, ldapLevel);
    if (m_file == nullptr) {
        return rc;
    }
    // Sessions created while debugging was on keep their level and must not print to a closed file.
    ber_set_option(nullptr, LBER_OPT_LOG_PRINT_FILE, stderr);
    int const closed = fclose(m_file);
    m_file = nullptr;
    return closed;
}

} // namespace Solvane

// The only header of the library that includes <ldap.h>, with declarations that it lacks.
#ifndef SOLVANE_LDAP_SRC_OPENLDAP_H
#define SOLVANE_LDAP_SRC_OPENLDAP_H

#define LDAP_DEPRECATED 1 // for ldap_value_free, which frees referrals
#include <ldap.h>

#include <ctime>

#include <sys/time.h>

// Exported by libldap, but declared in no installed header.
extern "C" int ldap_pvt_tls_set_option(LDAP* session, int option, void* value);
extern "C" int ldap_pvt_tls_init(int threads);
extern "C" void ldap_pvt_tls_ctx_free(void* context);

namespace Solvane {

/// Seconds as a timeval. OpenLDAP converts timeouts to milliseconds in an int, which would overflow
/// above the limit.
inline timeval timeoutOf(unsigned int seconds)
{
    constexpr unsigned int longest = 2147483;
    return timeval{static_cast<time_t>(seconds < longest ? seconds : longest), 0};
}

} // namespace Solvane

#endif

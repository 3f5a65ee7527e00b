// The one place that includes OpenLDAP's headers, with what they leave out.
#ifndef SOLVANE_LDAP_SRC_OPENLDAP_H
#define SOLVANE_LDAP_SRC_OPENLDAP_H

#define LDAP_DEPRECATED 1 // ldap_value_free: the release call of referral arrays
#include <ldap.h>

#include <ctime>

#include <sys/time.h>

// Exported by libldap, declared in no installed header.
extern "C" int ldap_pvt_tls_set_option(LDAP* session, int option, void* value);
extern "C" int ldap_pvt_tls_init(int threads);

namespace Solvane {

/// Seconds as OpenLDAP takes them. It counts in milliseconds in an int, so more than this would
/// wrap or wait for ever.
inline timeval timeoutOf(unsigned int seconds)
{
    constexpr unsigned int longest = 2147483;
    return timeval{static_cast<time_t>(seconds < longest ? seconds : longest), 0};
}

} // namespace Solvane

#endif

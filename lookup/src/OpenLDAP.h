// The one place of the lookup engine that includes OpenLDAP's headers.
#ifndef SOLVANE_LOOKUP_SRC_OPENLDAP_H
#define SOLVANE_LOOKUP_SRC_OPENLDAP_H

#include <ldap.h>

namespace Solvane::Lookup {

/// Whether the session has something to read that its socket has no longer: it is kept by a layer
/// that reads ahead or decrypts. To be asked before the socket is polled.
inline bool hasBufferedInput(LDAP* session)
{
    Sockbuf* socket = nullptr;
    return ldap_get_option(session, LDAP_OPT_SOCKBUF, &socket) == LDAP_OPT_SUCCESS &&
           ber_sockbuf_ctrl(socket, LBER_SB_OPT_DATA_READY, nullptr) > 0;
}

} // namespace Solvane::Lookup

#endif

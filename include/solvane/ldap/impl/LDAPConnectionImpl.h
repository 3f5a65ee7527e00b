/// @file
/// Body of a connection: owner of one OpenLDAP session.
#ifndef SOLVANE_LDAP_CONNECTION_IMPL_H
#define SOLVANE_LDAP_CONNECTION_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Semaphore.h>

#include <memory>
#include <string>

struct ldap;
typedef struct ldap LDAP;

namespace Solvane {

class LDAPMessageBuffer;
class SessionGuard;

/// Body of a connection. Owns the session from `ldap_initialize` to `ldap_unbind_ext`.
///
/// Not synchronised; `m_available` is what arranges that one thread uses it at a time.
class SOLVANE_LDAP_EXPORT LDAPConnectionImpl : public virtual RefImpl, public NonCopyable {
public:
    /// Seconds that a connection lives, and that each use adds.
    static constexpr long lifeSeconds = 300;
    /// Bytes of the largest message that a session takes unless told otherwise.
    static constexpr unsigned long defaultMaximumMessageSize = 64UL * 1024 * 1024;

    /// @throws LDAPException  code 4: type 1 the session or TLS could not be set up, type 2 an
    ///                        option; the session has been given back then
    LDAPConnectionImpl(LDAPConnection::RefServer const& server, bool anonymous);
    ~LDAPConnectionImpl() override;

    /// Ends the session. `m_context` keeps its value, but nothing is handed to OpenLDAP any more.
    /// @return OpenLDAP's result code; 0 where the session had ended before
    virtual int unbind();

    /// Sets an option of the session (`LDAP_OPT_...`).
    /// @return 0
    /// @throws LDAPException  code 4, type 2: OpenLDAP refuses
    int setOption(int option, void const* value);
    /// Reads an option of the session (`LDAP_OPT_...`).
    /// @return 0
    /// @throws LDAPException  code 4, type 2: OpenLDAP refuses
    int getOption(int option, void* value);

    /// Whether the connection looks usable: it has a socket without a broken pipe, and no recorded
    /// error. Sends nothing and never throws.
    bool isValid();
    /// True when the connection's time ended before `now` (seconds since the epoch).
    bool hasExpired(long now) const { return m_expiry < now; }
    /// Lets the connection live `lifeSeconds` past `now`, or that much longer where `now` is 0.
    void extendExpiryTime(long now);

    /// The session while it lives, else null.
    LDAP* session() const { return m_sessionEnded ? nullptr : m_context; }
    /// Bounds the size in bytes of a message from the server, from the next connect on.
    void maximumMessageSize(unsigned long bytes);

    // The state that handles, the pool and tests work on.
    LDAPConnection::RefServer m_server;
    LDAP* m_context;
    LDAPConnection::BindMode m_bindMode;
    int m_bindMessageId;
    LDAPResult m_bindResult; ///< null until bindWait() received something
    std::string m_bindDn;
    std::string m_bindPassword;
    bool m_anonymous;
    Semaphore m_available; ///< the in-use marker
    long m_expiry;         ///< seconds since the epoch
    int m_openldapErrorCode;

private:
    friend class LDAPConnection;

    int sendSimpleBind();
    bool takeBindResponse(LDAPMessageBuffer& message);
    std::string uriText() const;
    void initializeSession();
    void setSessionOptions();
    void allowAnyCertificate();

    bool m_sessionEnded;
    std::unique_ptr<SessionGuard> m_guard;
};

} // namespace Solvane

#endif

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

/// @cond of OpenLDAP
struct ldap;
typedef struct ldap LDAP;
/// @endcond

namespace Solvane {

class LDAPMessageBuffer;
class SocketGuard;

/// Body of a connection. Owns the session from `ldap_initialize` to `ldap_unbind_ext`.
///
/// Not synchronised; `m_available` is what arranges that one thread uses it at a time.
class SOLVANE_LDAP_EXPORT LDAPConnectionImpl : public virtual RefImpl, public NonCopyable {
public:
    /// Seconds that a connection lives, and that each use adds.
    static constexpr long lifeSeconds = 300;
    /// Bytes of the largest message that a session takes unless told otherwise.
    static constexpr unsigned long defaultMaximumMessageSize = 64UL * 1024 * 1024;

    /// Prepares a session; nothing is sent.
    /// @throws LDAPException  code 4, type 1, Connection.cpp:403: OpenLDAP makes no session;
    ///                        code 4, type 1, Connection.cpp:433: TLS could not be set up;
    ///                        code 4, type 2, Connection.cpp:519: an option was refused; the session
    ///                        has been given back then
    LDAPConnectionImpl(LDAPConnection::RefServer const& server, bool anonymous);
    ~LDAPConnectionImpl() override;

    /// Ends the session. `m_context` keeps its value, but nothing is handed to OpenLDAP any more.
    /// @return OpenLDAP's result code; 0 where the session had ended before
    virtual int unbind();

    /// Sets an option of the session (`LDAP_OPT_...`).
    /// @return 0
    /// @throws LDAPException  code 4, type 2, Connection.cpp:519: OpenLDAP refuses
    int setOption(int option, void const* value);
    /// Reads an option of the session (`LDAP_OPT_...`).
    /// @return 0
    /// @throws LDAPException  code 4, type 2, Connection.cpp:509: OpenLDAP refuses
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
    LDAPConnection::RefServer m_server;  ///< shared; never empty
    LDAP* m_context;                     ///< owned; keeps its value when the session has ended
    LDAPConnection::BindMode m_bindMode; ///< of the last bind
    int m_bindMessageId;                 ///< of the last asynchronous bind
    LDAPResult m_bindResult;             ///< null until bindWait() received something
    std::string m_bindDn;                ///< of the last bind; what the pool compares
    std::string m_bindPassword;          ///< likewise; kept for as long as the connection
    bool m_anonymous;                    ///< meant for use without a bind
    Semaphore m_available{1};            ///< the in-use marker; thread-safe
    long m_expiry;                       ///< seconds since the epoch
    int m_openldapErrorCode;             ///< the last one recorded; 0: none

private:
    friend class LDAPConnection; // binds

    int sendSimpleBind();
    bool takeBindResponse(LDAPMessageBuffer& message);
    std::string uriText() const;
    void initializeSession();
    void setSessionOptions();
    void allowAnyCertificate();

    bool m_sessionEnded;
    std::unique_ptr<SocketGuard> m_guard;
};

} // namespace Solvane

#endif

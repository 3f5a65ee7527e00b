/// @file
/// Body of a connection, which owns one OpenLDAP session.
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
/// Not thread-safe; the marker `m_available` ensures that one thread uses it at a time.
class SOLVANE_LDAP_EXPORT LDAPConnectionImpl : public virtual RefImpl, public NonCopyable {
public:
    /// Seconds until a connection expires, counted from its last checkout.
    static constexpr long lifeSeconds = 300;
    /// Default of `maximumMessageSize`, in bytes.
    static constexpr unsigned long defaultMaximumMessageSize = 64UL * 1024 * 1024;

    /// Prepares a session. Sends nothing. If it throws, the session is freed.
    /// @throws LDAPException  code 4, type 1, Connection.cpp:403: OpenLDAP cannot create a session;
    ///                        code 4, type 1, Connection.cpp:433: the TLS policy cannot be set;
    ///                        code 4, type 2, Connection.cpp:519: OpenLDAP rejects an option
    LDAPConnectionImpl(LDAPConnection::RefServer const& server, bool anonymous);
    ~LDAPConnectionImpl() override;

    /// Ends the session. `m_context` keeps its value, but is no longer passed to OpenLDAP.
    /// @return OpenLDAP's result code; 0 if the session ended before
    virtual int unbind();

    /// Sets an option of the session (`LDAP_OPT_...`).
    /// @return 0
    /// @throws LDAPException  code 4, type 2, Connection.cpp:519: OpenLDAP rejects it
    int setOption(int option, void const* value);
    /// Reads an option of the session (`LDAP_OPT_...`).
    /// @return 0
    /// @throws LDAPException  code 4, type 2, Connection.cpp:509: OpenLDAP rejects it
    int getOption(int option, void* value);

    /// Whether the connection appears usable: it has a socket without a broken pipe, and no recorded
    /// error. Sends nothing and never throws.
    bool isValid();
    /// Whether the connection expired before `now` (seconds since the epoch).
    bool hasExpired(long now) const { return m_expiry < now; }
    /// Sets the expiry time to `now` + `lifeSeconds` or, if `now` is 0, adds `lifeSeconds` to it.
    void extendExpiryTime(long now);

    /// The session, or null after it ended.
    LDAP* session() const { return m_sessionEnded ? nullptr : m_context; }
    /// Limits the size of a message from the server, in bytes, from the next connect on.
    void maximumMessageSize(unsigned long bytes);
    /// What guards the session's connection.
    SocketGuard& guard() { return *m_guard; }

    // The state, used by handles, the pool and tests.
    LDAPConnection::RefServer m_server;  ///< shared; never empty
    LDAP* m_context;                     ///< owned; dangling after the session ended
    LDAPConnection::BindMode m_bindMode; ///< of the last bind
    int m_bindMessageId;                 ///< of the last asynchronous bind
    LDAPResult m_bindResult;             ///< null until bindWait() receives a message
    std::string m_bindDn;                ///< of the last bind; the pool compares it
    std::string m_bindPassword;          ///< likewise; kept while the connection lives
    bool m_anonymous;                    ///< meant for use without a bind
    Semaphore m_available{1};            ///< the in-use marker; thread-safe
    long m_expiry;                       ///< seconds since the epoch
    int m_openldapErrorCode;             ///< the last one recorded; 0: none

private:
    friend class LDAPConnection; // binds and StartTLS

    int sendSimpleBind();
    bool takeBindResponse(LDAPMessageBuffer& message);
    std::string uriText() const;
    void initializeSession();
    void setSessionOptions();
    void allowAnyCertificate();
    void useTlsPolicy();
    int requestTls();
    int bindExternal(std::string const& authorizationId);
    int bindGssapi(std::string const& authorizationId);
    int awaitResponse(int id, unsigned long expectedType, LDAPMessageBuffer& response);

    bool m_sessionEnded;
    std::unique_ptr<SocketGuard> m_guard;
};

} // namespace Solvane

#endif

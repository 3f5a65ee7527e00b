/// @file
/// Body of a request: the base class for request classes of your own.
#ifndef SOLVANE_LDAP_REQUEST_IMPL_H
#define SOLVANE_LDAP_REQUEST_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Mutex.h>

namespace Solvane {

/// Body of a request: the connection it is sent on and its message id.
///
/// Not thread-safe, except with `shared`. A derived body owns the contents of the request and its
/// result.
class SOLVANE_LDAP_EXPORT LDAPRequestImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPRequestImpl();
    ~LDAPRequestImpl() override;

    /// Sends the request and stores its message id.
    virtual void send() = 0;
    /// Collects responses into the result.
    /// @return false if the final response has arrived, true if no message arrived for `timeout` seconds
    virtual bool wait(unsigned int timeout) = 0;
    /// The result so far; a null handle before the first message.
    virtual LDAPResult const& result() const = 0;
    /// Abandons the request, or does nothing.
    virtual void cancel() = 0;

    /// The OpenLDAP message id; 0 before the first `send`.
    int id() const { return m_id; }
    /// Stores the message id; called by `send`.
    void id(int messageId) { m_id = messageId; }
    /// The connection that the request is sent on; null until one is set.
    LDAPConnection& connection() { return m_connection; }
    /// Sets the connection that the request is sent on; shared.
    void connection(LDAPConnection& connection) { m_connection = connection; }
    /// Makes the mutex that a search's `send` and `wait`, and an add's `send`, hold. A body of your own
    /// locks `m_mutex` itself.
    /// @note The mutex is never freed, because another thread may still hold it.
    void shared();

protected:
    Mutex* m_mutex;              ///< null until shared()
    int m_id;                    ///< OpenLDAP's message id
    LDAPConnection m_connection; ///< shared with the caller
};

} // namespace Solvane

#endif

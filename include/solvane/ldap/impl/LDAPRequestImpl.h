/// @file
/// Body of a request: what a request class of one's own derives from.
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
/// One thread at a time, `shared` apart. A derived body owns what its request is made of, and its
/// result.
class SOLVANE_LDAP_EXPORT LDAPRequestImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPRequestImpl();
    ~LDAPRequestImpl() override;

    /// Sends the request and stores its message id.
    virtual void send() = 0;
    /// Collects answers into the result.
    /// @return false when the final answer has arrived, true when `timeout` seconds ran out first
    virtual bool wait(unsigned int timeout) = 0;
    /// What has been answered; a null handle before the first message.
    virtual LDAPResult const& result() const = 0;
    /// Gives the request up, or does nothing.
    virtual void cancel() = 0;

    /// The OpenLDAP message id; 0 before the first `send`.
    int id() const { return m_id; }
    /// For `send` to store the message id.
    void id(int messageId) { m_id = messageId; }
    /// The connection that the request is sent on; null until one is set.
    LDAPConnection& connection() { return m_connection; }
    /// Shares the connection that the request is to be sent on.
    void connection(LDAPConnection& connection) { m_connection = connection; }
    /// Makes the mutex that a search's `send` and `wait`, and an add's `send`, hold. A body of your own
    /// locks `m_mutex` itself.
    /// @note The mutex is never released: who else may still hold it cannot be known.
    void shared();

protected:
    Mutex* m_mutex;              ///< null until shared()
    int m_id;                    ///< OpenLDAP's message id
    LDAPConnection m_connection; ///< shared with the caller
};

} // namespace Solvane

#endif

/// @file
/// Body of a search.
#ifndef SOLVANE_LDAP_SEARCH_IMPL_H
#define SOLVANE_LDAP_SEARCH_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>

namespace Solvane {

/// Body of a search (RFC 4511 section 4.5): its parameters, which others may share, and its result.
class SOLVANE_LDAP_EXPORT LDAPSearchImpl : public LDAPRequestImpl {
public:
    LDAPSearchImpl();
    ~LDAPSearchImpl() override;

    /// Sends the search.
    /// @throws LDAPException  code 1, type 0, Search.cpp:249: null connection;
    ///                        code 4, type 4, Search.cpp:270: OpenLDAP refuses to send, and its code
    ///                        is recorded on the connection; code 4, type 4, Search.cpp:289: any
    ///                        other `Exception`, as the cause; what `LDAPSearchAdapter` throws
    void send() override;
    /// Collects entries until the final response.
    /// @throws LDAPException  code 4, type 4, Search.cpp:332: the wait failed, and OpenLDAP's code is
    ///                        recorded on the connection; code 4, type 4, Search.cpp:349: any other
    ///                        `Exception`, as the cause; what `LDAPResultImpl::parseMessage`
    ///                        throws
    bool wait(unsigned int timeout) override;
    /// A null handle before the first message.
    LDAPResult const& result() const override;
    /// Does nothing: no abandon is sent, and the responses still arrive.
    void cancel() override;

    /// Sets the parameters to a copy of `parameter`.
    void parameter(LDAPSearch::Parameter const& parameter);
    /// Shares `parameter`.
    void parameter(LDAPSearch::RefParameter const& parameter);
    /// The parameters, created with defaults if there were none.
    LDAPSearch::Parameter& parameter() const;

private:
    void sendOnce();
    bool collect(unsigned int timeout);

    mutable LDAPSearch::RefParameter m_parameter;
    LDAPResult m_result;
};

} // namespace Solvane

#endif

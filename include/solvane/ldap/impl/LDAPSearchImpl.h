/// @file
/// Body of a search.
#ifndef SOLVANE_LDAP_SEARCH_IMPL_H
#define SOLVANE_LDAP_SEARCH_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>

namespace Solvane {

/// Body of a search (RFC 4511 section 4.5): its record, which others may share, and its result.
class SOLVANE_LDAP_EXPORT LDAPSearchImpl : public LDAPRequestImpl {
public:
    LDAPSearchImpl();
    ~LDAPSearchImpl() override;

    /// Sends the search.
    /// @throws LDAPException  code 1, type 0, Search.cpp:249: null connection;
    ///                        code 4, type 4, Search.cpp:270: OpenLDAP refuses, and the code is
    ///                        recorded on the connection; code 4, type 4, Search.cpp:289: any
    ///                        other `Exception`, as the cause; what `LDAPSearchAdapter`
    ///                        throws
    void send() override;
    /// Collects entries until the search is done.
    /// @throws LDAPException  code 4, type 4, Search.cpp:332: the wait failed, and the code is
    ///                        recorded on the connection; code 4, type 4, Search.cpp:349: any
    ///                        other `Exception`, as the cause; what
    ///                        `LDAPResultImpl::parseMessage` throws
    bool wait(unsigned int timeout) override;
    /// A null handle before the first message.
    LDAPResult const& result() const override;
    /// Does nothing: no abandon is sent, and the answers still arrive.
    void cancel() override;

    /// Searches for a copy of `parameter`.
    void parameter(LDAPSearch::Parameter const& parameter);
    /// Shares the record of `parameter`.
    void parameter(LDAPSearch::RefParameter const& parameter);
    /// The record, made with defaults where there was none.
    LDAPSearch::Parameter& parameter() const;

private:
    void sendOnce();
    bool collect(unsigned int timeout);

    mutable LDAPSearch::RefParameter m_parameter;
    LDAPResult m_result;
};

} // namespace Solvane

#endif

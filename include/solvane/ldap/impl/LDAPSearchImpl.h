/// @file
/// Body of a search.
#ifndef SOLVANE_LDAP_SEARCH_IMPL_H
#define SOLVANE_LDAP_SEARCH_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>

namespace Solvane {

/// Body of a search.
class SOLVANE_LDAP_EXPORT LDAPSearchImpl : public LDAPRequestImpl {
public:
    LDAPSearchImpl();
    ~LDAPSearchImpl() override;

    /// Sends the search.
    /// @throws LDAPException  code 1, type 0: null connection; code 2, type 0: scope or alias mode
    ///                        out of range; code 4, type 4: OpenLDAP refuses (the code is recorded
    ///                        on the connection), or anything else, as the cause
    void send() override;
    /// Collects entries until the search is done.
    /// @throws LDAPException  code 4, type 4: the wait failed (the code is recorded on the
    ///                        connection), or anything else, as the cause; what
    ///                        `LDAPResultImpl::parseMessage` throws
    bool wait(unsigned int timeout) override;
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

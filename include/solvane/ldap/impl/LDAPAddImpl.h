/// @file
/// Body of an add.
#ifndef SOLVANE_LDAP_ADD_IMPL_H
#define SOLVANE_LDAP_ADD_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>

#include <list>
#include <string>

namespace Solvane {

/// Body of an add (RFC 4511 section 4.7): the DN, the attributes and the result.
class SOLVANE_LDAP_EXPORT LDAPAddImpl : public LDAPRequestImpl {
public:
    /// Adds the entry `dn`, which is copied.
    LDAPAddImpl(std::string& dn);
    ~LDAPAddImpl() override;

    /// Sends the entry.
    /// @throws LDAPException  code 1, type 0, Add.cpp:74: null connection;
    ///                        code 1, type 7, Add.cpp:83: OpenLDAP refuses to send; what `LDAPAddAdapter`
    ///                        throws
    void send() override;
    /// Collects the response.
    /// @throws LDAPException  code 4, type 3, Add.cpp:137, with any `Exception` as its cause:
    ///                        code 4, type 3, Add.cpp:106: the connection was unbound;
    ///                        code 4, type 3, Add.cpp:124: the wait failed; or what
    ///                        `LDAPResultImpl::parseMessage` throws
    bool wait(unsigned int timeout) override;
    /// A null handle before the response.
    LDAPResult const& result() const override;
    /// Does nothing: the add stays in flight, and its response still arrives.
    void cancel() override;

    /// The DN; you may change it until `send`.
    std::string& name() { return m_name; }
    /// Appends attributes.
    void attributes(std::list<LDAPAttribute> const& attributes) { m_attributes.add(attributes); }
    /// Replaces the attributes by those of `container`, which is shared.
    void attributes(LDAPAttributeContainer const& container) { m_attributes = container; }
    /// The attributes to be sent.
    LDAPAttributeContainer const& attributes() const { return m_attributes; }

private:
    bool collect(unsigned int timeoutSeconds);

    std::string m_name;
    LDAPAttributeContainer m_attributes;
    LDAPResult m_result;
};

} // namespace Solvane

#endif

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
    /// The creation of the entry `dn`, which is copied.
    LDAPAddImpl(std::string& dn);
    ~LDAPAddImpl() override;

    /// Sends the entry.
    /// @throws LDAPException  code 1, type 0, Add.cpp:74: null connection;
    ///                        code 1, type 7, Add.cpp:83: OpenLDAP refuses; what `LDAPAddAdapter`
    ///                        throws
    void send() override;
    /// Collects the answer.
    /// @throws LDAPException  code 4, type 3, Add.cpp:137: any `Exception`, as the cause:
    ///                        code 4, type 3, Add.cpp:106: the connection was unbound;
    ///                        code 4, type 3, Add.cpp:124: the wait failed; or what
    ///                        `LDAPResultImpl::parseMessage` throws
    bool wait(unsigned int timeout) override;
    /// A null handle before the answer.
    LDAPResult const& result() const override;
    /// Does nothing: the add stays under way, and its answer still arrives.
    void cancel() override;

    /// The DN, which may be changed until it is sent.
    std::string& name() { return m_name; }
    /// Appends attributes to those that are sent.
    void attributes(std::list<LDAPAttribute> const& attributes) { m_attributes.add(attributes); }
    /// Shares `container`: what is added to it until it is sent, is sent.
    void attributes(LDAPAttributeContainer const& container) { m_attributes = container; }
    /// What would be sent now.
    LDAPAttributeContainer const& attributes() const { return m_attributes; }

private:
    bool collect(unsigned int timeoutSeconds);

    std::string m_name;
    LDAPAttributeContainer m_attributes;
    LDAPResult m_result;
};

} // namespace Solvane

#endif

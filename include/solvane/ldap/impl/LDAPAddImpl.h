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

/// Body of an add.
class SOLVANE_LDAP_EXPORT LDAPAddImpl : public LDAPRequestImpl {
public:
    LDAPAddImpl(std::string& dn);
    ~LDAPAddImpl() override;

    /// Sends the entry.
    /// @throws LDAPException  code 1: type 0 null connection or null attribute, type 7 OpenLDAP
    ///                        refuses
    void send() override;
    /// Collects the answer.
    /// @throws LDAPException  code 4, type 3: whatever failed, as the cause
    bool wait(unsigned int timeout) override;
    LDAPResult const& result() const override;
    /// Does nothing: the add stays under way, and its answer still arrives.
    void cancel() override;

    std::string& name() { return m_name; }
    void attributes(std::list<LDAPAttribute> const& attributes) { m_attributes.add(attributes); }
    void attributes(LDAPAttributeContainer const& container) { m_attributes = container; }
    LDAPAttributeContainer const& attributes() const { return m_attributes; }

private:
    bool collect(unsigned int timeoutSeconds);

    std::string m_name;
    LDAPAttributeContainer m_attributes;
    LDAPResult m_result;
};

} // namespace Solvane

#endif

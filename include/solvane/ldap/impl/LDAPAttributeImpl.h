/// @file
/// Bodies of the attribute family.
#ifndef SOLVANE_LDAP_ATTRIBUTE_IMPL_H
#define SOLVANE_LDAP_ATTRIBUTE_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Buffer.h>

#include <list>
#include <string>

namespace Solvane {

/// Body of an attribute description.
class SOLVANE_LDAP_EXPORT LDAPAttributeTypeImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPAttributeTypeImpl();
    ~LDAPAttributeTypeImpl() override;

    /// Takes a description apart. For a body that is still empty.
    void parse(std::string const& text);
    void add(std::string const& option);
    std::string const& type() const { return m_type; }
    std::list<std::string> const& options() const { return m_options; }
    bool isBinary() const;
    std::string const& asString() const;

private:
    enum Binary : unsigned int { undecided = 0, binary = 1, notBinary = 2 };

    mutable Binary m_binary;    // cache of isBinary()
    mutable std::string m_text; // cache of asString(); empty: not built yet
    std::string m_type;
    std::list<std::string> m_options;
};

/// Body of an attribute. The one body that can be copied; a copy has values of its own.
class SOLVANE_LDAP_EXPORT LDAPAttributeImpl : public virtual RefImpl {
public:
    LDAPAttributeImpl();
    LDAPAttributeImpl(LDAPAttributeImpl const& other);
    LDAPAttributeImpl& operator=(LDAPAttributeImpl const& other);
    ~LDAPAttributeImpl() override;

    void type(LDAPAttributeType const& type);
    LDAPAttributeType const& type() const { return m_type; }
    void value(std::string const& text);
    void value(Buffer const& bytes);
    void value(berval** values);
    std::list<std::string> const& value() const;
    std::list<Buffer> const& binaryValue() const { return m_values; }
    std::string const& asString(char separator) const;

private:
    LDAPAttributeType m_type;
    std::list<Buffer> m_values;
    mutable std::list<std::string> m_textValues; // cache of value(); empty: not built yet
    mutable std::string m_text;                  // what asString() returned last
};

/// Body of an attribute container.
class SOLVANE_LDAP_EXPORT LDAPAttributeContainerImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPAttributeContainerImpl();
    ~LDAPAttributeContainerImpl() override;

    void add(LDAPAttribute const& attribute);
    void add(std::list<LDAPAttribute> const& attributes);
    std::list<LDAPAttribute> const& attributes() const { return m_attributes; }
    bool empty() const { return m_attributes.empty(); }
    /// @warning Looks at the first attribute only, until it matches.
    LDAPAttribute find(LDAPAttributeType const& type) const;

private:
    std::list<LDAPAttribute> m_attributes;
};

} // namespace Solvane

#endif

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

/// Body of an attribute description (RFC 4512 section 2.5). Const operations are thread-safe; the
/// others are not.
class SOLVANE_LDAP_EXPORT LDAPAttributeTypeImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPAttributeTypeImpl();
    ~LDAPAttributeTypeImpl() override;

    /// Parses a description. The body must be empty.
    void parse(std::string const& text);
    /// Appends an option without surrounding blanks.
    void add(std::string const& option);
    /// The type without options.
    std::string const& type() const { return m_type; }
    /// The options, in order.
    std::list<std::string> const& options() const { return m_options; }
    /// Whether an option is "binary", in any case.
    bool isBinary() const;
    /// The whole description; valid until the next change.
    std::string const& asString() const;

private:
    // Caches that const operations fill under a lock.
    mutable unsigned int m_binary;  // of isBinary(); 0: unknown, 1: binary, 2: not binary
    mutable std::string m_textForm; // of asString(); empty: not built yet
    std::string m_type;
    std::list<std::string> m_options;
};

/// Body of an attribute, the only body that can be copied; a copy has its own values. Const operations
/// and copying are thread-safe (`asString`: with the same separator); the others are not.
class SOLVANE_LDAP_EXPORT LDAPAttributeImpl : public virtual RefImpl {
public:
    LDAPAttributeImpl();
    /// Copies the values and shares the description.
    LDAPAttributeImpl(LDAPAttributeImpl const& other);
    /// Copies the values of `other` and shares its description.
    LDAPAttributeImpl& operator=(LDAPAttributeImpl const& other);
    ~LDAPAttributeImpl() override;

    /// Sets the description, shared with the caller.
    void type(LDAPAttributeType const& type);
    /// The same, and leaves `type` a null handle.
    void type(LDAPAttributeType&& type);
    /// The description; a null handle until it is set.
    LDAPAttributeType const& type() const { return m_type; }
    /// Appends one value; copies its bytes.
    void value(std::string const& text);
    /// Appends one value; copies its bytes.
    void value(Buffer const& bytes);
    /// Replaces all values by copies of a null-terminated array, which may be null.
    void value(berval** values);
    /// Every value as a string; cached by the first call.
    std::list<std::string> const& value() const;
    /// Every value as bytes.
    std::list<Buffer> const& binaryValue() const { return m_values; }
    /// The values of `value()` joined by `separator`; valid until a call with another separator.
    std::string const& asString(char separator) const;

private:
    LDAPAttributeType m_type;
    std::list<Buffer> m_values;
    // Caches that const operations fill under a lock.
    mutable std::list<std::string> m_textValues; // cache of value(); empty: not built yet
    mutable std::string m_textForm;              // what asString() returned last
};

/// Body of an attribute container: handles in the order in which they were added. Const operations are
/// thread-safe; `add` is not.
class SOLVANE_LDAP_EXPORT LDAPAttributeContainerImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPAttributeContainerImpl();
    ~LDAPAttributeContainerImpl() override;

    /// Appends a handle.
    void add(LDAPAttribute const& attribute);
    /// Appends a handle and leaves `attribute` a null handle.
    void add(LDAPAttribute&& attribute);
    /// Appends each handle of a list.
    void add(std::list<LDAPAttribute> const& attributes);
    /// The handles, in order.
    std::list<LDAPAttribute> const& attributes() const { return m_attributes; }
    /// True if there are no attributes.
    bool empty() const { return m_attributes.empty(); }
    /// As `LDAPAttributeContainer::find`.
    /// @warning Never returns if the first attribute does not match.
    LDAPAttribute find(LDAPAttributeType const& type) const;

private:
    std::list<LDAPAttribute> m_attributes;
};

} // namespace Solvane

#endif

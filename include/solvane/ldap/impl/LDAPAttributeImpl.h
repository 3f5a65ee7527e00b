/// @file
/// Bodies of the attribute family.
#ifndef SOLVANE_LDAP_ATTRIBUTE_IMPL_H
#define SOLVANE_LDAP_ATTRIBUTE_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Buffer.h>

#include <list>
#include <memory>
#include <string>

namespace Solvane {

/// Body of an attribute description (RFC 4512 section 2.5). One thread at a time, also for reading.
class SOLVANE_LDAP_EXPORT LDAPAttributeTypeImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPAttributeTypeImpl();
    ~LDAPAttributeTypeImpl() override;

    /// Takes a description apart. For a body that is still empty.
    void parse(std::string const& text);
    /// Appends an option, blanks round it dropped.
    void add(std::string const& option);
    /// The type without options.
    std::string const& type() const { return m_type; }
    /// The options in their order.
    std::list<std::string> const& options() const { return m_options; }
    /// True when an option is "binary" in any case.
    bool isBinary() const;
    /// The whole description; valid until the next change.
    std::string const& asString() const;

private:
    enum Binary : unsigned int { undecided = 0, binary = 1, notBinary = 2 };

    mutable Binary m_binary;    // cache of isBinary()
    mutable std::string m_text; // cache of asString(); empty: not built yet
    std::string m_type;
    std::list<std::string> m_options;
};

/// Body of an attribute. The one body that can be copied; a copy has values of its own. One thread
/// at a time, also for reading.
class SOLVANE_LDAP_EXPORT LDAPAttributeImpl : public virtual RefImpl {
public:
    LDAPAttributeImpl();
    /// Copies the values, shares the description.
    LDAPAttributeImpl(LDAPAttributeImpl const& other);
    /// Copies the values, shares the description of `other`.
    LDAPAttributeImpl& operator=(LDAPAttributeImpl const& other);
    ~LDAPAttributeImpl() override;

    /// Another description, shared with the caller.
    void type(LDAPAttributeType const& type);
    /// The description; of an attribute that came from a server, made when it is first asked for.
    LDAPAttributeType const& type() const
    {
        if (!m_description.empty()) {
            m_type.m_impl.adopt(std::make_unique<LDAPAttributeTypeImpl>());
            m_type.m_impl.body()->parse(m_description);
            m_description.clear();
        }
        return m_type;
    }
    /// Appends one value, its bytes copied.
    void value(std::string const& text);
    /// Appends one value, its bytes copied.
    void value(Buffer const& bytes);
    /// Replaces all values by copies of a null-terminated array, which may be null.
    void value(berval** values);
    /// Every value as a string; made once and kept.
    std::list<std::string> const& value() const;
    /// Every value as bytes.
    std::list<Buffer> const& binaryValue() const { return m_values; }
    /// The values of `value()` joined by `separator`; valid until the next call.
    std::string const& asString(char separator) const;

private:
    friend class EntryBuilder;

    /// Made when first asked for: of a big answer, few attributes ever are.
    struct Texts {
        std::list<std::string> values; // cache of value(); empty: not built yet
        std::string joined;            // what asString() returned last
    };

    Texts& texts() const
    {
        if (!m_texts) {
            m_texts = std::make_unique<Texts>();
        }
        return *m_texts;
    }

    mutable LDAPAttributeType m_type;
    mutable std::string m_description; // of a type that nobody has asked for yet, else empty
    std::list<Buffer> m_values;
    mutable std::unique_ptr<Texts> m_texts;
};

/// Body of an attribute container: handles in the order in which they were added. One thread at a
/// time, also for reading: attributes that came from a server are made when they are first asked for.
class SOLVANE_LDAP_EXPORT LDAPAttributeContainerImpl : public virtual RefImpl, public NonCopyable {
public:
    LDAPAttributeContainerImpl();
    ~LDAPAttributeContainerImpl() override;

    /// Appends a handle.
    void add(LDAPAttribute const& attribute);
    /// Appends each handle of a list.
    void add(std::list<LDAPAttribute> const& attributes);
    /// The handles in their order.
    std::list<LDAPAttribute> const& attributes() const
    {
        if (m_packed) {
            unpack();
        }
        return m_attributes;
    }
    /// True when nothing was added yet.
    bool empty() const { return !m_packed && m_attributes.empty(); }
    /// As `LDAPAttributeContainer::find`.
    /// @warning Looks at the first attribute only, until it matches.
    LDAPAttribute find(LDAPAttributeType const& type) const;

private:
    friend class EntryBuilder;

    void unpack() const;

    mutable std::list<LDAPAttribute> m_attributes; // empty while there is something packed
    mutable std::unique_ptr<char[]> m_packed; // of an entry whose attributes nobody has asked for
};

} // namespace Solvane

#endif

/// @file
/// Attribute descriptions, attributes with their values, and containers of attributes.
#ifndef SOLVANE_LDAP_ATTRIBUTE_H
#define SOLVANE_LDAP_ATTRIBUTE_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Buffer.h>

#include <list>
#include <string>

struct berval;

namespace Solvane {

/// An attribute description (RFC 4512 section 2.5): a type followed by options, each introduced by
/// ";", as `userCertificate;binary`.
///
/// Copies share one body: an option added through one is seen by all. Any number of threads may call
/// const operations at the same time, also on copies of one handle; `add` and assignment are not
/// thread-safe.
class SOLVANE_LDAP_EXPORT LDAPAttributeType {
public:
    /// A null handle; every operation but `isNull`, `==`, copying and assignment throws on it.
    LDAPAttributeType();
    /// Parses a description. Any text is taken: the type is what stands before the first ";",
    /// blanks round the whole and round each option are dropped, case is kept.
    /// @note The first ";" is looked for before leading blanks are dropped, so text with leading
    ///       blanks and options is cut too far right: trim such text first.
    LDAPAttributeType(std::string const& text);
    /// Shares the body.
    LDAPAttributeType(LDAPAttributeType const& other);
    /// Lets go of its body and shares that of `other`.
    LDAPAttributeType& operator=(LDAPAttributeType const& other);
    /// Leaves `other` a null handle.
    LDAPAttributeType(LDAPAttributeType&& other) noexcept;
    /// Lets go of its body and leaves `other` a null handle.
    LDAPAttributeType& operator=(LDAPAttributeType&& other) noexcept;
    virtual ~LDAPAttributeType();

    /// True for a handle without a body.
    bool isNull() const;

    /// The description as text; empty when the type is empty. Valid until the next change.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:41: null handle
    std::string const& asString() const;
    /// The attribute type without options, case as given.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:50: null handle
    std::string const& type() const;
    /// True when an option is "binary" in any case: values then travel as counted bytes.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:59: null handle
    bool isBinary() const;
    /// Appends an option, blanks round it dropped.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:68: null handle
    void add(std::string const& option);
    /// The options in the order in which they were added.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:78: null handle
    std::list<std::string> const& options() const;

    /// True for the same handle and for equal texts, case ignored; order and repetition of options
    /// count. A null handle equals only itself. Compares the texts (RFC 4512 section 2.5: types and
    /// options have no case).
    bool operator==(LDAPAttributeType const& other) const;

private:
    BodyReference<LDAPAttributeTypeImpl> m_impl;
};

/// One attribute of an entry: a description and its values in order.
///
/// Values are bytes. Copies share one body: a value added through one is seen by all. Any number of
/// threads may call const operations at the same time, also on copies of one handle (`asString` with
/// one separator); setters and assignment are not thread-safe.
class SOLVANE_LDAP_EXPORT LDAPAttribute {
public:
    /// A null handle; every operation but `isNull`, copying and assignment throws on it.
    LDAPAttribute();
    /// An attribute without values. The description is shared with the caller's handle.
    LDAPAttribute(LDAPAttributeType const& type);
    /// An attribute with the values of a null-terminated array, which stays the caller's.
    LDAPAttribute(LDAPAttributeType const& type, berval** values);
    /// The same, and leaves `type` a null handle.
    LDAPAttribute(LDAPAttributeType&& type, berval** values);
    /// An attribute with one value.
    LDAPAttribute(LDAPAttributeType const& type, Buffer const& value);
    /// Shares the body.
    LDAPAttribute(LDAPAttribute const& other);
    /// Lets go of its body and shares that of `other`.
    LDAPAttribute& operator=(LDAPAttribute const& other);
    /// Leaves `other` a null handle.
    LDAPAttribute(LDAPAttribute&& other) noexcept;
    /// Lets go of its body and leaves `other` a null handle.
    LDAPAttribute& operator=(LDAPAttribute&& other) noexcept;
    virtual ~LDAPAttribute();

    /// True for a handle without a body.
    bool isNull() const;

    /// The description, shared with the caller.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:247: null handle
    LDAPAttributeType const& type() const;
    /// Appends one value, its bytes copied.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:256: null handle
    void value(std::string const& text);
    /// Appends one value, its bytes copied.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:265: null handle
    void value(Buffer const& bytes);
    /// Every value as bytes.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:274: null handle
    std::list<Buffer> const& binaryValue() const;
    /// Replaces all values by copies of a null-terminated array; null or an empty one leaves none.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:283: null handle
    void value(berval** values);
    /// Every value as a string of the same bytes.
    /// @note Made at the first call and kept: values added later show in `binaryValue()` only.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:292: null handle
    std::list<std::string> const& value() const;
    /// The values of `value()` joined by `separator`, as they are.
    /// @return  valid until a call with another separator, through any copy of the handle: threads
    ///          that call it at the same time must pass the same one
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:301: null handle
    std::string const& asString(char separator) const;

private:
    BodyReference<LDAPAttributeImpl> m_impl;
};

/// Attributes in the order in which they were added; nothing is merged, sorted or removed.
///
/// Copies share one body: an attribute added through one is seen by all. Any number of threads may
/// call const operations at the same time, also on copies of one handle; `add` and assignment are not
/// thread-safe.
class SOLVANE_LDAP_EXPORT LDAPAttributeContainer {
public:
    /// An empty container; never a null handle.
    LDAPAttributeContainer();
    /// A container of these handles, whose bodies are shared.
    LDAPAttributeContainer(std::list<LDAPAttribute> const& attributes);
    /// Shares the body.
    LDAPAttributeContainer(LDAPAttributeContainer const& other);
    /// Lets go of its body and shares that of `other`.
    LDAPAttributeContainer& operator=(LDAPAttributeContainer const& other);
    ~LDAPAttributeContainer();

    /// Always false.
    bool isNull() const;

    /// Appends a handle; the attribute's body is shared. No check of any kind, null is taken too.
    void add(LDAPAttribute const& attribute);
    /// The same, and leaves `attribute` a null handle.
    void add(LDAPAttribute&& attribute);
    /// Appends each handle of a list.
    void add(std::list<LDAPAttribute> const& attributes);
    /// The handles in their order; valid as long as the container.
    std::list<LDAPAttribute> const& attributes() const;
    /// True when nothing was added yet.
    bool empty() const;
    /// The first attribute if its description equals `type`; a null handle if there is no
    /// attribute.
    /// @warning Only the first attribute is ever looked at, and when it does not match, the call
    ///          looks again and again until it does. Walk `attributes()` to search.
    LDAPAttribute find(LDAPAttributeType const& type) const;

private:
    BodyReference<LDAPAttributeContainerImpl> m_impl;
};

} // namespace Solvane

#endif

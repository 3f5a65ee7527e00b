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

/// An attribute description (RFC 4512 section 2.5): a type and options, separated by ";", for example
/// `userCertificate;binary`.
///
/// Copies share one body: an option added to one is in all of them. Const operations are thread-safe,
/// also on copies; `add` and assignment are not.
class SOLVANE_LDAP_EXPORT LDAPAttributeType {
public:
    /// A null handle. Every operation on it throws, except `isNull`, `==`, copying and assignment.
    LDAPAttributeType();
    /// Parses a description. Accepts any text: the type is the part before the first ";". Blanks around
    /// the type and the options are removed; case is preserved.
    /// @note The first ";" is located before leading blanks are removed, so a text with leading blanks
    ///       and options is split in the wrong place: trim it first.
    LDAPAttributeType(std::string const& text);
    /// Shares the body.
    LDAPAttributeType(LDAPAttributeType const& other);
    /// Releases its body and shares that of `other`.
    LDAPAttributeType& operator=(LDAPAttributeType const& other);
    /// Takes the body of `other` and leaves it a null handle.
    LDAPAttributeType(LDAPAttributeType&& other) noexcept;
    /// Releases its body, takes that of `other`, and leaves `other` a null handle.
    LDAPAttributeType& operator=(LDAPAttributeType&& other) noexcept;
    virtual ~LDAPAttributeType();

    /// True for a handle without a body.
    bool isNull() const;

    /// The description as text; empty if the type is empty. Valid until the next change.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:41: null handle
    std::string const& asString() const;
    /// The attribute type without options, with its case preserved.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:50: null handle
    std::string const& type() const;
    /// Whether an option is "binary", in any case: values are then sent with their length.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:59: null handle
    bool isBinary() const;
    /// Appends an option without surrounding blanks.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:68: null handle
    void add(std::string const& option);
    /// The options, in the order in which they were added.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:78: null handle
    std::list<std::string> const& options() const;

    /// Compares the texts, ignoring case (RFC 4512 section 2.5); order and repetition of options
    /// matter. A null handle equals only itself.
    bool operator==(LDAPAttributeType const& other) const;

private:
    BodyReference<LDAPAttributeTypeImpl> m_impl;
};

/// One attribute of an entry: a description and its values in order.
///
/// Values are bytes. Copies share one body: a value added to one is in all of them. Const operations
/// are thread-safe, also on copies (`asString`: with the same separator); setters and assignment are
/// not.
class SOLVANE_LDAP_EXPORT LDAPAttribute {
public:
    /// A null handle. Every operation on it throws, except `isNull`, copying and assignment.
    LDAPAttribute();
    /// An attribute without values. The description is shared with the caller's handle.
    LDAPAttribute(LDAPAttributeType const& type);
    /// An attribute with copies of the values of a null-terminated array, which the caller owns.
    LDAPAttribute(LDAPAttributeType const& type, berval** values);
    /// The same, and leaves `type` a null handle.
    LDAPAttribute(LDAPAttributeType&& type, berval** values);
    /// An attribute with one value.
    LDAPAttribute(LDAPAttributeType const& type, Buffer const& value);
    /// Shares the body.
    LDAPAttribute(LDAPAttribute const& other);
    /// Releases its body and shares that of `other`.
    LDAPAttribute& operator=(LDAPAttribute const& other);
    /// Takes the body of `other` and leaves it a null handle.
    LDAPAttribute(LDAPAttribute&& other) noexcept;
    /// Releases its body, takes that of `other`, and leaves `other` a null handle.
    LDAPAttribute& operator=(LDAPAttribute&& other) noexcept;
    virtual ~LDAPAttribute();

    /// True for a handle without a body.
    bool isNull() const;

    /// The description, shared with the caller.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:247: null handle
    LDAPAttributeType const& type() const;
    /// Appends one value; copies its bytes.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:256: null handle
    void value(std::string const& text);
    /// Appends one value; copies its bytes.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:265: null handle
    void value(Buffer const& bytes);
    /// Every value as bytes.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:274: null handle
    std::list<Buffer> const& binaryValue() const;
    /// Replaces all values by copies of a null-terminated array, which may be null or empty.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:283: null handle
    void value(berval** values);
    /// Every value as a string of the same bytes.
    /// @note Cached by the first call: values added later are in `binaryValue()` only.
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:292: null handle
    std::list<std::string> const& value() const;
    /// The values of `value()`, joined by `separator` without quoting.
    /// @return  valid until a call with another separator on any copy: concurrent callers must pass
    ///          the same one
    /// @throws LDAPException  code 1, type 0, Attribute.cpp:301: null handle
    std::string const& asString(char separator) const;

private:
    BodyReference<LDAPAttributeImpl> m_impl;
};

/// Attributes, in the order in which they were added; never merged or sorted.
///
/// Copies share one body: an attribute added to one is in all of them. Const operations are
/// thread-safe, also on copies; `add` and assignment are not.
class SOLVANE_LDAP_EXPORT LDAPAttributeContainer {
public:
    /// An empty container; never a null handle.
    LDAPAttributeContainer();
    /// A container of attributes, whose bodies are shared.
    LDAPAttributeContainer(std::list<LDAPAttribute> const& attributes);
    /// Shares the body.
    LDAPAttributeContainer(LDAPAttributeContainer const& other);
    /// Releases its body and shares that of `other`.
    LDAPAttributeContainer& operator=(LDAPAttributeContainer const& other);
    ~LDAPAttributeContainer();

    /// Always false.
    bool isNull() const;

    /// Appends a handle, whose body is shared. Null handles are accepted too.
    void add(LDAPAttribute const& attribute);
    /// The same, and leaves `attribute` a null handle.
    void add(LDAPAttribute&& attribute);
    /// Appends each handle of a list.
    void add(std::list<LDAPAttribute> const& attributes);
    /// The handles, in order; valid as long as the container.
    std::list<LDAPAttribute> const& attributes() const;
    /// True if there are no attributes.
    bool empty() const;
    /// The first attribute if its description equals `type`; a null handle if the container is empty.
    /// @warning Examines the first attribute only. If that does not match, the call never returns.
    ///          Loop over `attributes()` instead.
    LDAPAttribute find(LDAPAttributeType const& type) const;

private:
    BodyReference<LDAPAttributeContainerImpl> m_impl;
};

} // namespace Solvane

#endif

/// @file
/// Distinguished names as values.
#ifndef SOLVANE_LDAP_DISTINGUISHED_NAME_H
#define SOLVANE_LDAP_DISTINGUISHED_NAME_H

#include <solvane/ldap/Export.h>

#include <string>
#include <string_view>
#include <vector>

namespace Solvane {

/// A distinguished name (DN): the names that lead from an entry up to the root, the entry's own name
/// first (RFC 4514).
///
/// A value without a schema: it does not know that "cn" and "2.5.4.3" are one type, nor how a server
/// compares the values of a type. Sizes are not limited; time and memory grow in proportion to the
/// text, and nothing recurses. Const operations are thread-safe.
class SOLVANE_LDAP_EXPORT LDAPDistinguishedName {
public:
    /// One attribute type with one value.
    struct Assertion {
        std::string type;  ///< a name, as "cn", or an OID, as "2.5.4.3"; without options
        std::string value; ///< the bytes, without escapes; may hold NUL bytes and invalid UTF-8
        /// The value is the BER encoding of a value, which text shows as "#" with hexadecimal digits.
        bool isEncoded = false;
    };
    /// A relative distinguished name: at least one assertion, in any order.
    using RDN = std::vector<Assertion>;

    /// The empty DN, that of the root.
    LDAPDistinguishedName() = default;
    /// A DN of its names, the entry's own first.
    /// @throws LDAPException  code 2, type 0, DistinguishedName.cpp:92: a name without assertions, an
    ///                        invalid type, or an encoded value without bytes
    explicit LDAPDistinguishedName(std::vector<RDN> rdns);
    /// Parses the text of a DN (RFC 4514 section 3); the empty text is the root.
    ///
    /// Beyond the RFC, spaces around ",", "+" and "=" are ignored, escapes may encode any byte, and any numbers
    /// and dots are an OID. Not
    /// accepted: the forms of LDAPv2 (";" as a separator, values in quotation marks), types with
    /// options, raw NUL bytes and invalid UTF-8.
    /// @throws LDAPException  code 2, type 0, DistinguishedName.cpp:48: malformed. The text has the
    ///                        position and the cause; `intParameter()` is the position, in bytes
    ///                        from 0
    static LDAPDistinguishedName parse(std::string_view text);
    /// The text of a value, with every escape it needs as part of a DN (RFC 4514 section 2.4): also
    /// for untrusted bytes. Control characters and invalid UTF-8 become hexadecimal digits.
    static std::string escaped(std::string_view value);

    /// The DN as text: no spaces around separators, types as they were given, values as `escaped`
    /// writes them. Parsing the text results in the same names.
    std::string text() const;
    /// The text of all that is compared: two DNs are equal if these texts are. See `operator==`. A
    /// key for maps.
    std::string normalized() const;
    /// The names, the entry's own first.
    std::vector<RDN> const& rdns() const { return m_rdns; }
    /// True for the root.
    bool isEmpty() const { return m_rdns.empty(); }

    /// The DN of the entry above.
    /// @throws LDAPException  code 2, type 0, DistinguishedName.cpp:131: the root has no parent
    LDAPDistinguishedName parent() const;
    /// The DN of an entry directly below, as child("uid", user).
    /// @param type   a type without options
    /// @param value  any bytes; it needs no escapes, and cannot change the structure
    /// @throws LDAPException  code 2, type 0, DistinguishedName.cpp:92: the type is invalid
    LDAPDistinguishedName child(std::string const& type, std::string const& value) const;
    /// The same, with a name of several assertions.
    /// @throws LDAPException  as the constructor
    LDAPDistinguishedName child(RDN const& rdn) const;
    /// The names of this DN, followed by those of `base`.
    LDAPDistinguishedName join(LDAPDistinguishedName const& base) const;
    /// Whether the entry is below `base`, at any depth. No DN is below itself, every other one is
    /// below the root.
    bool isBelow(LDAPDistinguishedName const& base) const;

    /// Compares name by name. The assertions of a name may be in any order. Types, and the values of
    /// strings, are equal if only the case of ASCII letters differs; of values, spaces (U+0020) at
    /// either end are ignored, and several in a row count as one. All other bytes must be equal: no
    /// other letters are folded, and Unicode is not normalized. Encoded values are equal if their
    /// bytes are, and never equal a string.
    ///
    /// A server may compare more loosely (by its schema) or, for types such as an exact string, more
    /// strictly: do not take "equal" for "the same entry" where access depends on it.
    bool operator==(LDAPDistinguishedName const& other) const;
    /// The opposite of `==`.
    bool operator!=(LDAPDistinguishedName const& other) const { return !(*this == other); }

private:
    std::vector<RDN> m_rdns;
};

} // namespace Solvane

#endif

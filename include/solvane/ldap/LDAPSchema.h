/// @file
/// A server's schema: its attribute types.
#ifndef SOLVANE_LDAP_SCHEMA_H
#define SOLVANE_LDAP_SCHEMA_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPResult.h>

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace Solvane {

/// The attribute types of a server (RFC 4512 section 4.1.2), by name and by OID.
///
/// A value: copies are independent. Const operations are thread-safe.
class SOLVANE_LDAP_EXPORT LDAPSchema {
public:
    /// Who may write values (RFC 4512 section 4.1.2).
    enum Usage : int {
        UsageUser = 0,        ///< userApplications
        UsageDirectory = 1,   ///< directoryOperation
        UsageDistributed = 2, ///< distributedOperation, shared by servers
        UsageServer = 3       ///< dSAOperation, of one server
    };

    /// The definition of an attribute type. Texts that a definition lacks are empty.
    struct AttributeType {
        std::string oid; ///< as "2.5.4.3"; some servers have a text here, as "cn-oid"
        std::vector<std::string> names; ///< as "cn" and "commonName"; may be empty
        std::string description;        ///< for people
        std::string superior;           ///< the type that this one is derived from, by name or OID
        std::string equality;           ///< matching rule, as "caseIgnoreMatch"
        std::string ordering;           ///< matching rule
        std::string substring;          ///< matching rule
        std::string syntax;             ///< OID (RFC 4517 section 3.3)
        int maxLength = 0;              ///< of a value, as the server suggests; 0: it does not
        bool isObsolete = false;        ///< not for new values
        bool isSingleValued = false;    ///< at most one value in an entry
        bool isCollective = false;      ///< one value for many entries (RFC 3671)
        bool isReadOnly = false;        ///< clients may not change it
        Usage usage = UsageUser;        ///< who may write it
    };

    /// A schema without types.
    LDAPSchema() = default;
    /// The types of a subschema entry (RFC 4512 section 4.2). Definitions that cannot be parsed, as some
    /// servers have, are left out: see `malformed`.
    explicit LDAPSchema(LDAPSearchResultEntry const& entry);
    /// Reads the subschema entry that the root of the directory names.
    /// @param connection  a bound connection without a request in flight
    /// @param timeout     seconds for both searches together
    /// @throws LDAPException  code 4, type 6, Schema.cpp:55: the server does not let this identity read
    ///                        its schema, or did not respond in time; what `LDAPSearchStream` throws
    static LDAPSchema read(LDAPConnection const& connection, unsigned int timeout);

    /// Adds the type of a definition, as "( 2.5.4.3 NAME 'cn' SUP name )". A type of the same OID or name
    /// is hidden by it.
    /// @throws LDAPException  code 2, type 0, Schema.cpp:46: malformed; `intParameter()` is the position
    ///                        in bytes, from 0;
    ///                        code 2, type 0, Operation.cpp:70: it has a zero byte
    void add(std::string const& definition);

    /// The type of a name, an OID or an attribute description, whose options are ignored; case of ASCII
    /// letters, too. Null if there is none; otherwise valid until the schema is changed or destroyed.
    AttributeType const* find(std::string const& description) const;
    /// Whether both are of one type: by name or OID, as "cn" and "2.5.4.3"; options are ignored. Types
    /// that the schema does not have are compared as texts.
    bool isSameType(std::string const& left, std::string const& right) const;
    /// The type with the rules and the syntax that it inherits (RFC 4512 section 2.5.1).
    AttributeType resolved(AttributeType const& type) const;

    /// The types in the server's order.
    std::vector<AttributeType> const& attributeTypes() const { return m_types; }
    /// Definitions that cannot be parsed, as the server sent them.
    std::vector<std::string> const& malformed() const { return m_malformed; }

private:
    void addAll(std::list<std::string> const& definitions);

    std::vector<AttributeType> m_types;
    std::vector<std::string> m_malformed;
    std::map<std::string, std::size_t> m_index; // names and OIDs in lower case
};

} // namespace Solvane

#endif

/// @file
/// The result of a request.
#ifndef SOLVANE_LDAP_RESULT_H
#define SOLVANE_LDAP_RESULT_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/RefCounted.h>

#include <list>
#include <string>

namespace Solvane {

class LDAPConnection;

/// One entry of a search result: its DN and its attributes in the server's order.
///
/// Copies have their own DN and share the attribute container. Const operations are thread-safe, also
/// on copies; the others are not.
class SOLVANE_LDAP_EXPORT LDAPSearchResultEntry {
public:
    /// An entry without attributes.
    LDAPSearchResultEntry(std::string const& entryName);
    /// The same, without a copy of the text.
    LDAPSearchResultEntry(std::string&& entryName);
    /// An entry with attributes, whose bodies are shared.
    LDAPSearchResultEntry(std::string const& entryName, std::list<LDAPAttribute> const& attributes);
    /// Copies the DN and shares the attributes.
    LDAPSearchResultEntry(LDAPSearchResultEntry const& other);
    /// Copies the DN of `other` and shares its attributes.
    LDAPSearchResultEntry& operator=(LDAPSearchResultEntry const& other);
    virtual ~LDAPSearchResultEntry();

    /// The DN as the server sent it; empty if there is none.
    std::string const& entryName() const { return m_entryName; }
    /// The same as `entryName`.
    std::string const& dn() const { return m_entryName; }
    /// The attributes in the server's order.
    LDAPAttributeContainer const& attributes() const { return m_attributes; }
    /// Appends an attribute to the container, which copies of the entry share.
    void appendAttribute(LDAPAttribute const& attribute);
    /// The same, and leaves `attribute` a null handle.
    void appendAttribute(LDAPAttribute&& attribute);

    /// Returns false for every argument, including the entry itself: compare DNs instead.
    bool operator==(LDAPSearchResultEntry const& other);

private:
    std::string m_entryName;
    LDAPAttributeContainer m_attributes;
};

/// The result of one request, filled message by message while you wait for the request.
///
/// Copies share one body. Entries accumulate; each final response overwrites type and code (RFC 4511
/// section 4.1.9). On a null handle, the accessors throw `LDAPException` (code 1, type 0), each with
/// its own line. They are thread-safe, also on copies, while no `wait` fills the result; assignment is
/// not thread-safe.
class SOLVANE_LDAP_EXPORT LDAPResult {
public:
    /// A null handle: no message has arrived.
    LDAPResult();
    /// An empty result for messages of the OpenLDAP session `context`, which it borrows.
    LDAPResult(void* context);
    /// An empty result for messages of the connection's session.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:129: null connection
    LDAPResult(LDAPConnection const& connection);
    /// Shares the body.
    LDAPResult(LDAPResult const& other);
    /// Releases its body and shares that of `other`.
    LDAPResult& operator=(LDAPResult const& other);
    virtual ~LDAPResult();

    /// True for a handle without a body.
    bool isNull() const;
    /// The shared body, or null for a null handle.
    LDAPResultImpl* impl() const;

    /// Type of the last message: 0 none, 1 bind, 2 search entry, 3 search reference,
    /// 4 search result, 5 modify, 6 add, 7 delete, 8 modify DN, 9 compare, 10 extended.
    /// @throws LDAPException  code 1, type 0, Result.cpp:267: null handle
    int resultType() const;
    /// LDAP result code of the final response (RFC 4511 appendix A).
    /// @throws LDAPException  code 1, type 0, Result.cpp:276: null handle
    int resultCode() const;
    /// The part of the DN that exists, from the final response.
    /// @throws LDAPException  code 1, type 0, Result.cpp:285: null handle
    std::string const& matchedDN() const;
    /// The server's diagnostic message, or OpenLDAP's text if the code is not 0 and there is none.
    /// @throws LDAPException  code 1, type 0, Result.cpp:294: null handle
    std::string const& errorMessage() const;
    /// URIs of a referral in the final response.
    /// @throws LDAPException  code 1, type 0, Result.cpp:303: null handle
    std::list<std::string> const& referrals() const;
    /// Entries in the order of arrival.
    /// @throws LDAPException  code 1, type 0, Result.cpp:313: null handle
    std::list<LDAPSearchResultEntry> const& searchResultEntries() const;
    /// Always empty: continuation references are checked and dropped, not followed.
    /// @throws LDAPException  code 1, type 0, Result.cpp:322: null handle
    std::list<std::string> const& searchReferrals() const;

private:
    BodyReference<LDAPResultImpl> m_impl;
};

} // namespace Solvane

#endif

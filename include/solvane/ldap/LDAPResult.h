/// @file
/// What a server answered to one request.
#ifndef SOLVANE_LDAP_RESULT_H
#define SOLVANE_LDAP_RESULT_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/RefCounted.h>

#include <list>
#include <string>

namespace Solvane {

class LDAPConnection;

/// One entry that a search found: its DN and its attributes in the server's order.
///
/// A value: a copy has its own DN; the attribute container is shared, as handles are. Any number of
/// threads may call const operations at the same time, also on copies; the others are not
/// thread-safe.
class SOLVANE_LDAP_EXPORT LDAPSearchResultEntry {
public:
    /// An entry without attributes.
    LDAPSearchResultEntry(std::string const& entryName);
    /// The same, without a copy of the text.
    LDAPSearchResultEntry(std::string&& entryName);
    /// An entry with these attributes, whose bodies are shared.
    LDAPSearchResultEntry(std::string const& entryName, std::list<LDAPAttribute> const& attributes);
    /// Copies the DN, shares the attributes.
    LDAPSearchResultEntry(LDAPSearchResultEntry const& other);
    /// Copies the DN, shares the attributes of `other`.
    LDAPSearchResultEntry& operator=(LDAPSearchResultEntry const& other);
    virtual ~LDAPSearchResultEntry();

    /// The DN as the server sent it; empty for an entry without one.
    std::string const& entryName() const { return m_entryName; }
    /// The same by its short name.
    std::string const& dn() const { return m_entryName; }
    /// The attributes in the server's order.
    LDAPAttributeContainer const& attributes() const { return m_attributes; }
    /// Appends one to the container, which copies of the entry share.
    void appendAttribute(LDAPAttribute const& attribute);
    /// The same, and leaves `attribute` a null handle.
    void appendAttribute(LDAPAttribute&& attribute);

    /// False for every argument, the entry itself included: compare DNs instead.
    bool operator==(LDAPSearchResultEntry const& other);

private:
    std::string m_entryName;
    LDAPAttributeContainer m_attributes;
};

/// The answer to one request, filled message by message while the request is awaited.
///
/// Copies share one body. Entries accumulate; each final response overwrites type and code (RFC
/// 4511 section 4.1.9). Every reading operation throws `LDAPException` (code 1, type 0) on a null
/// handle, each with a line of its own. Any number of threads may call them at the same time, also on
/// copies of one handle, while no request is awaited into the result; assignment is not thread-safe.
class SOLVANE_LDAP_EXPORT LDAPResult {
public:
    /// A null handle: nothing has been answered yet.
    LDAPResult();
    /// An empty result for messages of the OpenLDAP session `context`, which it does not own.
    LDAPResult(void* context);
    /// An empty result for messages of the connection's session.
    /// @throws LDAPException  code 1, type 0, Connection.cpp:129: null connection
    LDAPResult(LDAPConnection const& connection);
    /// Shares the body.
    LDAPResult(LDAPResult const& other);
    /// Lets go of its body and shares that of `other`.
    LDAPResult& operator=(LDAPResult const& other);
    virtual ~LDAPResult();

    /// True for a handle without a body: nothing has been answered.
    bool isNull() const;
    /// The shared body, or null for a null handle.
    LDAPResultImpl* impl() const;

    /// Kind of the last response parsed: 0 none, 1 bind, 2 search entry, 3 search reference,
    /// 4 search result, 5 modify, 6 add, 7 delete, 8 modify DN, 9 compare, 10 extended.
    /// @throws LDAPException  code 1, type 0, Result.cpp:267: null handle
    int resultType() const;
    /// LDAP result code of the final response, OpenLDAP's number (RFC 4511 appendix A).
    /// @throws LDAPException  code 1, type 0, Result.cpp:276: null handle
    int resultCode() const;
    /// The part of the DN that exists, as the final response gave it.
    /// @throws LDAPException  code 1, type 0, Result.cpp:285: null handle
    std::string const& matchedDN() const;
    /// The server's diagnostic text, else OpenLDAP's text for a code other than 0.
    /// @throws LDAPException  code 1, type 0, Result.cpp:294: null handle
    std::string const& errorMessage() const;
    /// URIs of a final response that referred elsewhere.
    /// @throws LDAPException  code 1, type 0, Result.cpp:303: null handle
    std::list<std::string> const& referrals() const;
    /// Entries in the order of their arrival.
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

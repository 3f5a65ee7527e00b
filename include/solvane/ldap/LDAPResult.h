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
/// A value: a copy has its own DN; the attribute container is shared, as handles are.
class SOLVANE_LDAP_EXPORT LDAPSearchResultEntry {
public:
    LDAPSearchResultEntry(std::string const& entryName);
    LDAPSearchResultEntry(std::string const& entryName, std::list<LDAPAttribute> const& attributes);
    LDAPSearchResultEntry(LDAPSearchResultEntry const& other);
    LDAPSearchResultEntry& operator=(LDAPSearchResultEntry const& other);
    virtual ~LDAPSearchResultEntry();

    /// The DN as the server sent it; empty for an entry without one.
    std::string const& entryName() const { return m_entryName; }
    LDAPAttributeContainer const& attributes() const { return m_attributes; }
    void appendAttribute(LDAPAttribute const& attribute);

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
/// handle.
class SOLVANE_LDAP_EXPORT LDAPResult {
public:
    /// A null handle: nothing has been answered yet.
    LDAPResult();
    /// An empty result for messages of the OpenLDAP session `context`, which it does not own.
    LDAPResult(void* context);
    /// An empty result for messages of the connection's session.
    /// @throws LDAPException  code 1, type 0: null connection
    LDAPResult(LDAPConnection const& connection);
    LDAPResult(LDAPResult const& other);
    LDAPResult& operator=(LDAPResult const& other);
    virtual ~LDAPResult();

    bool isNull() const;
    /// The shared body, or null for a null handle.
    LDAPResultImpl* impl() const;

    /// Kind of the last response parsed: 0 none, 1 bind, 2 search entry, 3 search reference,
    /// 4 search result, 5 modify, 6 add, 7 delete, 8 modify DN, 9 compare, 10 extended.
    int resultType() const;
    /// LDAP result code of the final response, OpenLDAP's number (RFC 4511 appendix A).
    int resultCode() const;
    /// The part of the DN that exists, as the final response gave it.
    std::string const& matchedDN() const;
    /// The server's diagnostic text, else OpenLDAP's text for a code other than 0.
    std::string const& errorMessage() const;
    /// URIs of a final response that referred elsewhere.
    std::list<std::string> const& referrals() const;
    /// Entries in the order of their arrival.
    std::list<LDAPSearchResultEntry> const& searchResultEntries() const;
    /// Always empty: continuation references are checked and dropped, not followed.
    std::list<std::string> const& searchReferrals() const;

private:
    BodyReference<LDAPResultImpl> m_impl;
};

} // namespace Solvane

#endif

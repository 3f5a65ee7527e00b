/// @file
/// Body of a result: the parser of the server's messages.
#ifndef SOLVANE_LDAP_RESULT_IMPL_H
#define SOLVANE_LDAP_RESULT_IMPL_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include <list>
#include <string>

struct ldap;
typedef struct ldap LDAP;

namespace Solvane {

/// Body of a result: everything that was answered to one request so far.
class SOLVANE_LDAP_EXPORT LDAPResultImpl : public virtual RefImpl, public NonCopyable {
public:
    /// @param context  the session (`LDAP*`) of the messages; not owned
    LDAPResultImpl(void* context);
    ~LDAPResultImpl() override;

    /// Reads one message into the result; an empty owner changes nothing.
    /// @throws LDAPException  code 2, type 6: a kind of message that is not known; code 1, type 6:
    ///                        a response that OpenLDAP cannot parse; code 4, type 5: a referral
    ///                        (stored before), or a reference that cannot be parsed; code 4, type
    ///                        6: anything else, as the cause
    void parseMessage(LDAPMessageBuffer& message);
    /// Reads a chain of search entries and references. Entries are appended whole or not at all.
    /// @note For chains of one message, as LDAP_MSG_ONE gives them: the first one's kind is taken
    ///       for all, and a longer chain with a reference at its head is read for ever.
    /// @throws LDAPException  code 4: type 6 another kind of message, type 5 a damaged reference
    void parseListResultEntry(LDAPMessageBuffer& chain);
    /// Checks the reference at the head of the chain; its URIs are dropped. An empty owner has none.
    /// @throws LDAPException  code 4, type 5: it cannot be parsed
    void parseSearchReference(LDAPMessageBuffer& chain);

    int resultType() const { return m_resultType; }
    int resultCode() const { return m_resultCode; }
    std::string const& matchedDN() const { return m_matchedDN; }
    std::string const& errorMessage() const { return m_errorMessage; }
    std::list<std::string> const& referrals() const { return m_referrals; }
    std::list<LDAPSearchResultEntry> const& searchResultEntries() const
    {
        return m_searchResultEntries;
    }
    std::list<std::string> const& searchReferrals() const { return m_searchReferrals; }

private:
    void requireSession() const;
    void parseFinalResponse(LDAPMessageBuffer& message);
    void parseEntry(LDAPMessage* message);
    void refuseReferrals(LDAPValueBuffer const& referrals);

    int m_resultType;
    int m_resultCode;
    std::string m_matchedDN;
    std::string m_errorMessage;
    std::list<std::string> m_referrals;
    std::list<LDAPSearchResultEntry> m_searchResultEntries;
    std::list<std::string> m_searchReferrals;
    LDAP* m_context;
};

} // namespace Solvane

#endif

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

/// @cond of OpenLDAP
struct ldap;
typedef struct ldap LDAP;
/// @endcond

namespace Solvane {

/// Body of a result: everything that was answered to one request so far. Any number of
/// threads may call const operations at the same time; the others are not thread-safe.
class SOLVANE_LDAP_EXPORT LDAPResultImpl : public virtual RefImpl, public NonCopyable {
public:
    /// An empty result.
    /// @param context  the session (`LDAP*`) of the messages; not owned, and must outlive parsing
    LDAPResultImpl(void* context);
    ~LDAPResultImpl() override;

    /// Reads one message into the result; an empty owner changes nothing.
    /// @throws LDAPException  code 2, type 6, Result.cpp:541: a kind of message that is not known;
    ///                        code 1, type 6, Result.cpp:577: a response that OpenLDAP cannot
    ///                        parse, or no session; code 4, type 5, Result.cpp:624: a referral
    ///                        (stored before); code 4, type 6, Result.cpp:633: anything that is no
    ///                        `LDAPException` yet, as the cause; what `parseListResultEntry` throws
    void parseMessage(LDAPMessageBuffer& message);
    /// Reads a chain of search entries and references. Entries are appended whole or not at all.
    /// @note For chains of one message, as LDAP_MSG_ONE gives them: the first one's kind is taken
    ///       for all, and a longer chain with a reference at its head is read for ever.
    /// @throws LDAPException  code 4, type 6, Result.cpp:420: another kind of message;
    ///                        code 4, type 6, Result.cpp:479: any other `Exception`, as
    ///                        the cause; what `parseSearchReference` throws
    void parseListResultEntry(LDAPMessageBuffer& chain);
    /// Checks the reference at the head of the chain; its URIs are dropped. An empty owner has none.
    /// @throws LDAPException  code 4, type 5, Result.cpp:646: it cannot be parsed;
    ///                        code 1, type 6, Result.cpp:577: no session
    void parseSearchReference(LDAPMessageBuffer& chain);

    /// Kind of the last response parsed, as `LDAPResult::resultType`.
    int resultType() const { return m_resultType; }
    /// LDAP result code of the final response (RFC 4511 appendix A).
    int resultCode() const { return m_resultCode; }
    /// The part of the DN that exists.
    std::string const& matchedDN() const { return m_matchedDN; }
    /// The server's diagnostic text, else OpenLDAP's for a code other than 0.
    std::string const& errorMessage() const { return m_errorMessage; }
    /// URIs of a final response that referred elsewhere.
    std::list<std::string> const& referrals() const { return m_referrals; }
    /// Entries in the order of their arrival.
    std::list<LDAPSearchResultEntry> const& searchResultEntries() const
    {
        return m_searchResultEntries;
    }
    /// Always empty.
    std::list<std::string> const& searchReferrals() const { return m_searchReferrals; }

private:
    void requireSession() const;
    void parseFinalResponse(LDAPMessageBuffer& message);
    LDAPMessage* parseEntry(LDAPMessage* message);
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

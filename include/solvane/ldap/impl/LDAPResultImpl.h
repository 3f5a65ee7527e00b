/// @file
/// Body of a result, which decodes the server's messages.
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
struct ldapcontrol;
typedef struct ldap LDAP;
/// @endcond

namespace Solvane {

/// Body of a result: the responses to one request so far. Const operations are thread-safe; the others
/// are not.
class SOLVANE_LDAP_EXPORT LDAPResultImpl : public virtual RefImpl, public NonCopyable {
public:
    /// An empty result.
    /// @param context  the session (`LDAP*`) of the messages; borrowed, must outlive parsing
    LDAPResultImpl(void* context);
    ~LDAPResultImpl() override;

    /// Decodes one message into the result. Does nothing for an empty owner.
    /// @throws LDAPException  code 2, type 6, Result.cpp:541: unknown message type;
    ///                        code 1, type 6, Result.cpp:577: a response that OpenLDAP cannot
    ///                        parse, or no session; code 4, type 5, Result.cpp:624: a referral
    ///                        (stored first); code 4, type 6, Result.cpp:633: any other
    ///                        `Exception`, as the cause; what `parseListResultEntry` throws
    void parseMessage(LDAPMessageBuffer& message);
    /// Decodes a chain of search entries and references. Appends complete entries only.
    /// @note For chains of one message, as LDAP_MSG_ONE returns them: the type of the first message is
    ///       assumed for all, and a longer chain that begins with a reference never ends.
    /// @throws LDAPException  code 4, type 6, Result.cpp:420: another message type;
    ///                        code 4, type 6, Result.cpp:479: any other `Exception`, as
    ///                        the cause; what `parseSearchReference` throws
    void parseListResultEntry(LDAPMessageBuffer& chain);
    /// Parses the reference at the start of the chain and drops its URIs. Does nothing for an empty
    /// owner.
    /// @throws LDAPException  code 4, type 5, Result.cpp:646: the reference cannot be parsed;
    ///                        code 1, type 6, Result.cpp:577: no session
    void parseSearchReference(LDAPMessageBuffer& chain);

    /// Type of the last message, as `LDAPResult::resultType`.
    int resultType() const { return m_resultType; }
    /// LDAP result code of the final response (RFC 4511 appendix A).
    int resultCode() const { return m_resultCode; }
    /// The part of the DN that exists.
    std::string const& matchedDN() const { return m_matchedDN; }
    /// The server's diagnostic message, or OpenLDAP's text if the code is not 0 and there is none.
    std::string const& errorMessage() const { return m_errorMessage; }
    /// URIs of a referral in the final response.
    std::list<std::string> const& referrals() const { return m_referrals; }
    /// Entries in the order of arrival.
    std::list<LDAPSearchResultEntry> const& searchResultEntries() const
    {
        return m_searchResultEntries;
    }
    /// Always empty.
    std::list<std::string> const& searchReferrals() const { return m_searchReferrals; }

private:
    friend class LDAPOperationImpl; // takes the controls, too

    void requireSession() const;
    void readType(int messageType);
    int readResponse(LDAPMessage* message, LDAPValueBuffer& referrals, ldapcontrol*** controls);
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

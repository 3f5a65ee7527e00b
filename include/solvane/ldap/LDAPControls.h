/// @file
/// The controls that programs use: their values for requests, and what responses say.
#ifndef SOLVANE_LDAP_CONTROLS_H
#define SOLVANE_LDAP_CONTROLS_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPOperation.h>
#include <solvane/ldap/LDAPResult.h>

#include <list>
#include <string>

namespace Solvane {

/// Encodes controls of requests, and decodes those of responses. All functions are static and
/// thread-safe.
///
/// Functions that decode look for their control in a list such as `LDAPOperation::responseControls`,
/// and return whether it is there; without it, they leave their last parameter as it is. They throw
/// `LDAPException`, code 1, type 6, Controls.cpp:84, if its value is missing or malformed.
class SOLVANE_LDAP_EXPORT LDAPControls {
public:
    /// What a page of a search says about the next one (RFC 2696).
    struct Page {
        int estimate = 0;   ///< entries in all, as the server estimates; 0: it does not say
        std::string cookie; ///< for the next page, bytes; empty after the last one
    };

    /// A key of a sort (RFC 2891).
    struct SortKey {
        std::string type;       ///< attribute description
        std::string rule = {};  ///< ordering rule, a name or OID; empty: the type's own
        bool isReverse = false; ///< from the largest to the smallest
    };

    /// What a server says about a sort (RFC 2891).
    struct SortResult {
        int code = 0;     ///< 0 sorted; 16 no such attribute, 18 no such rule, and so on
        std::string type; ///< the attribute description that it could not sort by; empty: none
    };

    /// What a server says about a password (draft-behera-ldap-password-policy-10). -1: nothing.
    struct PasswordPolicy {
        int secondsLeft = -1; ///< until the password expires
        int logins = -1;      ///< how often an expired password still works
        int error = -1; ///< 0 expired, 1 locked, 2 must be changed, 3 may not be changed, 4 the
                        ///< old one is missing, 5 poor, 6 too short, 7 too young, 8 in the
                        ///< history
    };

    /// A page of a search (RFC 2696).
    /// @param size      entries of the page, at least 0
    /// @param cookie    of the page before; empty: the first page
    /// @param critical  false: a server without pages returns everything
    /// @throws LDAPException  code 2, type 0, Controls.cpp:41: the size is negative
    static LDAPOperation::Control pagedResults(int size, std::string const& cookie = std::string(),
                                               bool critical = true);
    /// Decodes the control of a search's final response.
    static bool pagedResults(std::list<LDAPOperation::Control> const& controls, Page& page);

    /// Sorts the entries of a search (RFC 2891), by the first key first.
    static LDAPOperation::Control sort(std::list<SortKey> const& keys, bool critical = true);
    /// Decodes the control of a search's final response.
    static bool sort(std::list<LDAPOperation::Control> const& controls, SortResult& result);

    /// Does the operation only if the entry matches a filter; else the result is 122 (RFC 4528).
    /// @param filter    RFC 4515 text
    /// @param critical  false: a server that does not support it does the operation in any case
    /// @throws LDAPException  code 2, type 0, Controls.cpp:52: a filter that `LDAPFilter::parse`
    ///                        refuses;
    ///                        code 2, type 0, Operation.cpp:70: it has a zero byte
    static LDAPOperation::Control assertion(std::string const& filter, bool critical = true);

    /// Asks for the entry as it was before a delete, a rename or a modify (RFC 4527).
    /// @param types     attribute descriptions; empty: all user attributes
    /// @param critical  false: a server that does not support it returns no entry
    static LDAPOperation::Control preRead(std::list<std::string> const& types,
                                          bool critical = true);
    /// Decodes the entry of the response.
    static bool preRead(std::list<LDAPOperation::Control> const& controls,
                        LDAPSearchResultEntry& entry);
    /// Asks for the entry as it is after an add, a rename or a modify (RFC 4527).
    /// @param types     attribute descriptions; empty: all user attributes
    /// @param critical  false: a server that does not support it returns no entry
    static LDAPOperation::Control postRead(std::list<std::string> const& types,
                                           bool critical = true);
    /// Decodes the entry of the response.
    static bool postRead(std::list<LDAPOperation::Control> const& controls,
                         LDAPSearchResultEntry& entry);

    /// Does the operation as another identity (RFC 4370); always critical.
    /// @param authorizationId  "dn:" and a DN, or "u:" and a name; empty: anonymous
    static LDAPOperation::Control proxiedAuthorization(std::string const& authorizationId);

    /// Treats referral entries as other entries, instead of answering with a referral (RFC 3296).
    static LDAPOperation::Control manageDsaIT(bool critical = true);

    /// Which entries a search returns (RFC 3672); always critical.
    /// @param visible  true: subentries only; false: all others
    static LDAPOperation::Control subentries(bool visible);

    /// Asks what the server has to say about the password
    /// (draft-behera-ldap-password-policy-10); not critical.
    static LDAPOperation::Control passwordPolicy();
    /// Decodes the control of a response.
    static bool passwordPolicy(std::list<LDAPOperation::Control> const& controls,
                               PasswordPolicy& policy);
};

} // namespace Solvane

#endif

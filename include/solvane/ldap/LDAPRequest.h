/// @file
/// Requests sent to a server: what all have in common, the search and the add.
#ifndef SOLVANE_LDAP_REQUEST_H
#define SOLVANE_LDAP_REQUEST_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include <boost/shared_ptr.hpp>

#include <list>
#include <string>

namespace Solvane {

/// A request of some kind. Send it, wait for its outcome, read the result.
///
/// Copies share one body, and hold the connection. One thread at a time, with all that is on the same
/// connection. Every operation but construction, copying, assignment and `isNull` throws
/// `LDAPException` (code 1, type 0) on a null handle, each with a line of its own.
class SOLVANE_LDAP_EXPORT LDAPRequest {
public:
    /// A null handle.
    LDAPRequest();
    /// Shares the body.
    LDAPRequest(LDAPRequest& other);
    /// Lets go of its body and shares that of `other`.
    LDAPRequest& operator=(LDAPRequest const& other);
    virtual ~LDAPRequest();

    /// True for a handle without a body.
    bool isNull() const;

    /// Checks the handle and changes nothing: a request stays on the connection it was built on.
    /// @throws LDAPException  code 1, type 0, Search.cpp:36: null handle
    void connection(LDAPConnection& connection);
    /// The OpenLDAP message id; 0 before the first `send`.
    /// @throws LDAPException  code 1, type 0, Search.cpp:44: null handle
    int id() const;
    /// The connection that the request was built on, shared with it.
    /// @throws LDAPException  code 1, type 0, Search.cpp:54: null handle
    LDAPConnection& connection();
    /// Sends the request.
    /// @throws LDAPException  code 1, type 0, Search.cpp:63: null handle; what the body's `send`
    ///                        throws (`LDAPSearchImpl`, `LDAPAddImpl`)
    void send();
    /// Collects answers.
    /// @param timeout  whole seconds for *each* message awaited; 0 polls once
    /// @return false when the final answer has arrived, true when the time ran out first
    /// @throws LDAPException  code 1, type 0, Search.cpp:72: null handle; what the body's `wait`
    ///                        throws (`LDAPSearchImpl`, `LDAPAddImpl`)
    bool wait(unsigned int timeout);
    /// What has been answered; a null handle before the first message.
    /// @throws LDAPException  code 1, type 0, Search.cpp:81: null handle
    LDAPResult const& result() const;
    /// Does what the concrete request makes of it; nothing for a search or an add.
    /// @throws LDAPException  code 1, type 0, Search.cpp:90: null handle
    void cancel();

protected:
    BodyReference<LDAPRequestImpl> m_impl; ///< what a derived handle adopts its body into
};

/// A search (RFC 4511 section 4.5). Copies share the body, and with it the record and the result.
class SOLVANE_LDAP_EXPORT LDAPSearch : public LDAPRequest {
public:
    /// How deep it looks (RFC 4511 section 4.5.1.2).
    enum Scope : int { ScopeBase = 0, ScopeOneLevel = 1, ScopeSubtree = 2 };
    /// Which aliases the server follows (RFC 4511 section 4.5.1.3).
    enum Deref : int { DerefNever = 0, DerefSearching = 1, DerefFinding = 2, DerefAlways = 3 };

    /// What to search for. Checked when the search is sent, not before. A value: copies are apart.
    class SOLVANE_LDAP_EXPORT Parameter {
    public:
        /// Subtree, no aliases followed, all user attributes; from the root, with no filter yet.
        Parameter();
        /// The same, from `baseDN` on.
        Parameter(std::string const& baseDN);

        std::string baseDN; ///< where the search starts
        /// RFC 4515 text; empty sends none, and OpenLDAP then asks for everything.
        std::string filter;
        /// Attribute types to return, in request order; empty asks for all user attributes (RFC
        /// 4511 section 4.5.1.8).
        std::list<LDAPAttributeType> attributes;
        Scope scope;   ///< how deep to look
        Deref deref;   ///< stays set on the session; `DerefNever` leaves what an earlier search set
        int sizeLimit; ///< entries; for the caller's own use, not sent
        int timeLimit; ///< seconds; for the caller's own use, not sent
        bool attrsOnly; ///< true: types without values
    };

    /// A parameter record shared between a caller and its searches: changes show in all. The count
    /// is for any thread; the record is for one at a time, or for reading.
    class SOLVANE_LDAP_EXPORT RefParameter : public boost::shared_ptr<Parameter> {
    public:
        /// Holds no record.
        RefParameter();
        /// A new record, copied from `parameter`.
        RefParameter(Parameter const& parameter);
        /// A new record that starts at `baseDN`, all else default.
        RefParameter(std::string const& baseDN);
    };

    /// A null handle.
    LDAPSearch();
    /// A search on `connection` for a copy of `parameter`. Nothing is sent.
    LDAPSearch(LDAPConnection& connection, Parameter const& parameter);
    /// A search on `connection` that shares the record of `parameter`. Nothing is sent.
    LDAPSearch(LDAPConnection& connection, RefParameter const& parameter);
    /// Shares the body.
    LDAPSearch(LDAPSearch& other);
    /// Lets go of its body and shares that of `other`.
    LDAPSearch& operator=(LDAPSearch const& other);
    ~LDAPSearch() override;

    /// The search's record, made with defaults where there was none.
    /// @throws LDAPException  code 1, type 0, Search.cpp:206: null handle
    Parameter& parameter() const;
};

/// The creation of one entry (RFC 4511 section 4.7).
///
/// The result tells the server's verdict: code 0 added, 68 it exists already, and so on. Copies share
/// the body, and with it the attributes and the result.
class SOLVANE_LDAP_EXPORT LDAPAdd : public LDAPRequest {
public:
    /// A null handle.
    LDAPAdd();
    /// The creation of the entry `dn` on `connection`, without attributes yet. Nothing is sent.
    LDAPAdd(LDAPConnection& connection, std::string& dn);
    /// Shares the body.
    LDAPAdd(LDAPAdd& other);
    /// Lets go of its body and shares that of `other`.
    LDAPAdd& operator=(LDAPAdd const& other);
    ~LDAPAdd() override;

    /// The DN of the entry, which may be changed until it is sent.
    /// @throws LDAPException  code 1, type 0, Add.cpp:22: null handle
    std::string& name();
    /// Appends attributes to those that are sent; their bodies are shared.
    /// @throws LDAPException  code 1, type 0, Add.cpp:33: null handle
    void attributes(std::list<LDAPAttribute> const& attributes);
    /// Sends the attributes of `container`, which is shared: what is added to it until then is
    /// sent.
    /// @throws LDAPException  code 1, type 0, Add.cpp:43: null handle
    void attributes(LDAPAttributeContainer const& container);
    /// What would be sent now.
    /// @throws LDAPException  code 1, type 0, Add.cpp:53: null handle
    LDAPAttributeContainer const& attributes() const;
};

} // namespace Solvane

#endif

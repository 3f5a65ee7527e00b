/// @file
/// Requests: the base class, the search and the add.
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

/// Base of requests. Send a request, wait for its response, read the result.
///
/// Copies share one body, which holds the connection. Not thread-safe, and neither are other requests
/// on the same connection. On a null handle, every operation throws `LDAPException` (code 1, type 0),
/// each with its own line, except construction, copying, assignment and `isNull`.
class SOLVANE_LDAP_EXPORT LDAPRequest {
public:
    /// A null handle.
    LDAPRequest();
    /// Shares the body.
    LDAPRequest(LDAPRequest& other);
    /// Releases its body and shares that of `other`.
    LDAPRequest& operator=(LDAPRequest const& other);
    virtual ~LDAPRequest();

    /// True for a handle without a body.
    bool isNull() const;

    /// Checks the handle and changes nothing: a request keeps the connection it was created on.
    /// @throws LDAPException  code 1, type 0, Search.cpp:36: null handle
    void connection(LDAPConnection& connection);
    /// The OpenLDAP message id; 0 before the first `send`.
    /// @throws LDAPException  code 1, type 0, Search.cpp:44: null handle
    int id() const;
    /// The connection that the request was created on; shared.
    /// @throws LDAPException  code 1, type 0, Search.cpp:54: null handle
    LDAPConnection& connection();
    /// Sends the request.
    /// @throws LDAPException  code 1, type 0, Search.cpp:63: null handle; what the body's `send`
    ///                        throws (`LDAPSearchImpl`, `LDAPAddImpl`)
    void send();
    /// Collects responses.
    /// @param timeout  whole seconds for *each* message awaited; 0 polls once
    /// @return false if the final response has arrived, true if the time ran out
    /// @throws LDAPException  code 1, type 0, Search.cpp:72: null handle; what the body's `wait`
    ///                        throws (`LDAPSearchImpl`, `LDAPAddImpl`)
    bool wait(unsigned int timeout);
    /// The result so far; a null handle before the first message.
    /// @throws LDAPException  code 1, type 0, Search.cpp:81: null handle
    LDAPResult const& result() const;
    /// Calls the body's `cancel`, which does nothing for a search or an add.
    /// @throws LDAPException  code 1, type 0, Search.cpp:90: null handle
    void cancel();

protected:
    BodyReference<LDAPRequestImpl> m_impl; ///< adopts the body of a derived handle
};

/// A search (RFC 4511 section 4.5). Copies share the body, and so the parameters and the result.
class SOLVANE_LDAP_EXPORT LDAPSearch : public LDAPRequest {
public:
    /// Scope of the search (RFC 4511 section 4.5.1.2).
    enum Scope : int { ScopeBase = 0, ScopeOneLevel = 1, ScopeSubtree = 2 };
    /// Which aliases the server follows (RFC 4511 section 4.5.1.3).
    enum Deref : int { DerefNever = 0, DerefSearching = 1, DerefFinding = 2, DerefAlways = 3 };

    /// What to search for; validated by `send`. A value: copies are independent.
    class SOLVANE_LDAP_EXPORT Parameter {
    public:
        /// Base "", no filter, subtree, no aliases followed, all user attributes.
        Parameter();
        /// The same with the base `baseDN`.
        Parameter(std::string const& baseDN);

        std::string baseDN; ///< where the search starts
        /// RFC 4515 text; if it is empty, OpenLDAP searches for every entry.
        std::string filter;
        /// Attribute types to return, in request order; empty requests all user attributes (RFC
        /// 4511 section 4.5.1.8).
        std::list<LDAPAttributeType> attributes;
        Scope scope;    ///< scope of the search
        Deref deref;    ///< stays set on the session; `DerefNever` keeps that of an earlier search
        int sizeLimit;  ///< entries; for the caller's use, not sent
        int timeLimit;  ///< seconds; for the caller's use, not sent
        bool attrsOnly; ///< true: types without values
    };

    /// A shared pointer to parameters, for a caller and its searches: changes take effect in all. The
    /// reference count is thread-safe; the parameters are thread-safe for reading.
    class SOLVANE_LDAP_EXPORT RefParameter : public boost::shared_ptr<Parameter> {
    public:
        /// An empty pointer.
        RefParameter();
        /// A copy of `parameter`.
        RefParameter(Parameter const& parameter);
        /// New parameters with the base `baseDN`, everything else default.
        RefParameter(std::string const& baseDN);
    };

    /// A null handle.
    LDAPSearch();
    /// A search on `connection` with a copy of `parameter`. Sends nothing.
    LDAPSearch(LDAPConnection& connection, Parameter const& parameter);
    /// A search on `connection` that shares `parameter`. Sends nothing.
    LDAPSearch(LDAPConnection& connection, RefParameter const& parameter);
    /// Shares the body.
    LDAPSearch(LDAPSearch& other);
    /// Releases its body and shares that of `other`.
    LDAPSearch& operator=(LDAPSearch const& other);
    ~LDAPSearch() override;

    /// The parameters of the search, created with defaults if there were none.
    /// @throws LDAPException  code 1, type 0, Search.cpp:206: null handle
    Parameter& parameter() const;
};

/// Adding one entry (RFC 4511 section 4.7).
///
/// The result has the server's code: 0 added, 68 the entry exists already, and so on. Copies share the
/// body, and so the attributes and the result.
class SOLVANE_LDAP_EXPORT LDAPAdd : public LDAPRequest {
public:
    /// A null handle.
    LDAPAdd();
    /// Adds the entry `dn` on `connection`, without attributes yet. Sends nothing.
    /// @param connection  shared with the request
    /// @param dn          copied
    LDAPAdd(LDAPConnection& connection, std::string& dn);
    /// Shares the body.
    LDAPAdd(LDAPAdd& other);
    /// Releases its body and shares that of `other`.
    LDAPAdd& operator=(LDAPAdd const& other);
    ~LDAPAdd() override;

    /// The DN of the entry; you may change it until `send`.
    /// @throws LDAPException  code 1, type 0, Add.cpp:22: null handle
    std::string& name();
    /// Appends attributes, whose bodies are shared.
    /// @throws LDAPException  code 1, type 0, Add.cpp:33: null handle
    void attributes(std::list<LDAPAttribute> const& attributes);
    /// Replaces the attributes by those of `container`, which is shared: attributes added to it before
    /// `send` are sent too.
    /// @throws LDAPException  code 1, type 0, Add.cpp:43: null handle
    void attributes(LDAPAttributeContainer const& container);
    /// The attributes to be sent.
    /// @throws LDAPException  code 1, type 0, Add.cpp:53: null handle
    LDAPAttributeContainer const& attributes() const;
};

} // namespace Solvane

#endif

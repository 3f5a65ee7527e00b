/// @file
/// A search whose entries come one after the other.
#ifndef SOLVANE_LDAP_SEARCH_STREAM_H
#define SOLVANE_LDAP_SEARCH_STREAM_H

#include <solvane/ldap/Export.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPOperation.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/LDAPResult.h>

#include <list>
#include <string>

namespace Solvane {

/// A search of any size (RFC 4511 section 4.5), in bounded memory: each `next` takes one entry or
/// reference.
///
/// Memory: one entry, and its message while it is decoded. Nothing is read from the connection unless you
/// call `next` or `wait`, or wait for another request on the same connection; meanwhile TCP makes the
/// server pause. While you wait for another request on the same connection, OpenLDAP stores, without a
/// limit, the entries of this search that arrive before that response: use a connection of its own, or
/// pages. With pages (RFC 2696), the server sends at most one page ahead of you.
///
/// The pages are one search: `next` asks for the next page when it has taken the last entry of one. A
/// server that does not support pages answers with code 12. Servers keep one paged search for each connection.
/// If a page may have as many entries as the size limit, a server may answer without pages.
///
/// Destroying the last handle abandons a search in flight. Cancel or destroy a stream before you return
/// its connection to the pool. A forked child abandons nothing of its parent's.
///
/// `send`, `cancel` and the controls are those of `LDAPOperation`, with this:
/// - `send` copies the parameters and controls, for all pages.
/// - `wait` drops the entries and references that are left, and then is complete; its timeout is for all
///   of them, and 0 drops those that have arrived, for one second at most. Use it to learn the result only.
/// - Once an exception is thrown, other than for a referral, the search is over: entries may be missing.
///   It is abandoned unless the connection broke. `next` and `wait` throw Operation.cpp:92, until it is
///   sent again.
/// - `id` changes with each page; it is 0 once the search is over by an exception.
/// - The result and its controls are those of the last page.
///
/// `send` throws what `LDAPOperation` throws, and `LDAPException`
/// - code 2, type 0, SearchStream.cpp:64: a limit or the size of a page is negative;
/// - code 4, type 4, SearchStream.cpp:84: OpenLDAP refuses to send, as for a dead connection, or
///   `LDAPFilter::parse` refuses the filter. `next` and `wait` throw it if the next page cannot be
///   requested;
/// - code 1, type 0, Attribute.cpp:41: a null attribute description;
/// - code 2, type 0, Attribute.cpp:531 and 579: scope or alias mode are out of range.
///
/// Copies share one body. Not thread-safe, and neither are other requests on the same connection.
class SOLVANE_LDAP_EXPORT LDAPSearchStream : public LDAPOperation {
public:
    /// What `next` has taken.
    enum Item : int {
        ItemEntry = 0,     ///< an entry: see `entry`
        ItemReference = 1, ///< a continuation reference, which is not followed: see `references`
        ItemEnd = 2,       ///< nothing is left: see `result`
        ItemTimeout = 3    ///< nothing arrived in time; the search is still in flight
    };

    /// What to search for. Unlike those of `LDAPSearch`, both limits are sent, and the alias mode is for
    /// this search only. A value: copies are independent.
    class SOLVANE_LDAP_EXPORT Parameter : public LDAPSearch::Parameter {
    public:
        /// Base "", no filter, subtree, no aliases followed, all user attributes; no limits, no pages.
        Parameter();
        /// The same with the base `baseDN`.
        Parameter(std::string const& baseDN);

        /// Entries of a page; 0: without pages. Do not add a control for pages yourself.
        int pageSize;
    };

    /// A null handle.
    LDAPSearchStream();
    /// A search. Sends nothing.
    /// @param connection  shared
    /// @param parameter   copied; `sizeLimit` in entries, `timeLimit` in seconds; 0: OpenLDAP's
    ///                    configuration decides, and the server
    LDAPSearchStream(LDAPConnection const& connection, Parameter const& parameter);
    /// Shares the body.
    LDAPSearchStream(LDAPSearchStream const& other);
    /// Releases its body and shares that of `other`.
    LDAPSearchStream& operator=(LDAPSearchStream const& other);
    ~LDAPSearchStream() override;

    /// The parameters; you may change them until `send`.
    /// @throws LDAPException  code 1, type 0, SearchStream.cpp:28: null handle
    Parameter& parameter() const;

    /// Takes the next entry or reference. At the end, returns `ItemEnd` as often as it is called.
    /// @param timeout  seconds for the whole call, even if intermediate responses or empty pages arrive;
    ///                 0: only what has arrived
    /// @throws LDAPException  code 1, type 0, SearchStream.cpp:37: null handle;
    ///                        code 4, type 4, SearchStream.cpp:91: the wait failed, as for a connection
    ///                        that broke;
    ///                        code 4, type 6, SearchStream.cpp:102: malformed entry;
    ///                        code 4, type 6, SearchStream.cpp:111: malformed reference;
    ///                        code 4, type 6, SearchStream.cpp:120: the server says of a page that it
    ///                        is complete, but not whether it is the last one, and pages are smaller
    ///                        than the size limit;
    ///                        code 1, type 6, Controls.cpp:84: malformed control of a page;
    ///                        what `send` throws for the next page, and `LDAPOperation`'s `wait`
    /// @note All of these but that of a null handle, of a request that is not in flight and of a referral
    ///       are recorded on the connection, so that the pool drops it.
    Item next(unsigned int timeout);

    /// The entry that `next` has taken; until the next `next`, `wait` or `send`. Otherwise an entry
    /// without DN and attributes. Copies remain.
    /// @throws LDAPException  code 1, type 0, SearchStream.cpp:46: null handle
    LDAPSearchResultEntry const& entry() const;
    /// The URIs of the reference that `next` has taken, any of which will do; as long as `entry`.
    /// Otherwise empty.
    /// @throws LDAPException  code 1, type 0, SearchStream.cpp:55: null handle
    std::list<std::string> const& references() const;
};

} // namespace Solvane

#endif

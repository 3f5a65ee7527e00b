// The throw protocol: the places that throw and trace, as data.
//
// Each unit begins with a table of its sites; the code refers to rows, never to numbers.
#ifndef SOLVANE_LDAP_SRC_THROW_SITE_H
#define SOLVANE_LDAP_SRC_THROW_SITE_H

#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/RefCounted.h>

#include <solvart/Debug.h>

#include <string>
#include <utility>

#include <unistd.h>

namespace Solvane {

/// The kind of fault: an exception's code.
enum class Fault : int {
    nullHandle = 1,
    refused = 1, ///< OpenLDAP refuses the request, or cannot parse the response
    invalidInput = 2,
    failed = 4
};

/// The stage of the LDAP operation: an exception's type.
enum class Stage : int {
    general = 0,
    unreachable = 1,
    option = 2,
    bind = 3,
    search = 4,
    referral = 5,
    parse = 6,
    add = 7,
    modify = 8,
    remove = 9,
    rename = 10,
    compare = 11,
    extended = 12
};

/// A place that throws.
struct ThrowSite {
    char const* unit; ///< with the extension
    unsigned int line;
    Fault fault;
    Stage stage;

    constexpr ThrowSite as(Stage other) const { return ThrowSite{unit, line, fault, other}; }
};

/// The bits of the debug mask that enable a trace; all of them must be set.
enum class Trace : unsigned int {
    error = 0x80001,     ///< lines begin with the thread id
    connection = 0x80008 ///< connections opened, reused and expired; refused binds
};

/// A place that traces.
struct TraceSite {
    char const* unit; ///< without the extension
    unsigned int line;
    char const* function;
    Trace trace;

    bool isWanted() const
    {
        unsigned int const bits = static_cast<unsigned int>(trace);
        return (basepp_dbg_mask_ & bits) == bits;
    }
};

/// Writes a debug line if the mask enables it; otherwise the arguments are not evaluated.
#define SOLVANE_TRACE(site, ...)                                                                   \
    do {                                                                                           \
        if ((site).isWanted()) {                                                                   \
            basepp::dbg::debug((site).unit, static_cast<int>((site).line), (site).function, 0,     \
                               __VA_ARGS__);                                                       \
        }                                                                                          \
    } while (false)

/// The exception of a site, without detail.
LDAPException fault(ThrowSite const& site);
/// The exception of a site with detail text.
LDAPException fault(ThrowSite const& site, std::string const& text);
/// The exception of a site that wraps `caught`, which is being handled.
LDAPException fault(ThrowSite const& site, Exception const& caught);

/// The detail text "Error: '...' during <work><uri>" of a failed OpenLDAP call.
std::string openldapError(int rc, char const* work, std::string const& uri);

/// Returns the body of a handle; throws the site's exception for a null handle.
template <typename T> T& bodyOf(BodyReference<T> const& handle, ThrowSite const& site)
{
    if (handle.isNull()) {
        throw fault(site);
    }
    return *handle.body();
}

/// Runs `work`. An LDAPException passes through; any other Exception becomes the cause of the site's.
template <typename Work> auto reportingAs(ThrowSite const& site, Work&& work)
{
    try {
        return std::forward<Work>(work)();
    } catch (LDAPException const&) {
        throw;
    } catch (Exception const& caught) {
        throw fault(site, caught);
    }
}

/// Runs `work`. Every Exception, including LDAPException, becomes the cause of the site's.
template <typename Work> auto wrappingAs(ThrowSite const& site, Work&& work)
{
    try {
        return std::forward<Work>(work)();
    } catch (Exception const& caught) {
        throw fault(site, caught);
    }
}

} // namespace Solvane

#endif

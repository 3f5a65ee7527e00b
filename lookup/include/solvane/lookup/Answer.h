/// @file
/// The answer to a key: outcome, entries and cause.
#ifndef SOLVANE_LOOKUP_ANSWER_H
#define SOLVANE_LOOKUP_ANSWER_H

#include <solvane/session/Export.h>
#include <solvane/session/ResultCodes.h>
#include <solvane/session/Verdict.h>

#include <solvane/ldap/LDAPResult.h>

#include <list>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// The answer to one key. A value, except that copies share the entries. Concurrent reads are
/// thread-safe.
struct Answer {
    Outcome outcome = Outcome::TryLater; ///< the outcome of the key
    /// The entries of the search itself, without members of groups; with `TryLater`, those received
    /// before a limit was hit. An attribute that a server returns in ranges (`member;range=0-1499`)
    /// is complete, under its own name. Copies share them.
    std::list<LDAPSearchResultEntry> entries;
    std::string filter; ///< of the last search, or the invalid one that was not sent; may be empty
    std::string server; ///< URI of the server that answered or failed last; empty: none was asked
    int code = 0;       ///< as in `Verdict`
    std::string text;   ///< cause, one line; if `Found` or `NotFound`, may contain a remark
    Identity identity = Identity::Anonymous; ///< of the connection that answered
    bool wasRepeated = false; ///< a search was repeated, on a new connection or another server
    double milliseconds = 0;  ///< from the key's start to its answer
    /// The forms of the key that were looked up, in order; `filter` is that of the last one. Empty
    /// if the key itself is its only form.
    std::vector<std::string> forms;
    /// The values of the result attributes, of the entries and of the members of groups, formatted:
    /// depth first, in the directory's order, each entry once. Filled if the settings ask for it
    /// (`Settings::makesResults`: groups, a format or an expansion limit) and the outcome is
    /// `Found`; empty then means that the entries found have no such values.
    std::vector<std::string> results = {};

    /// The first value of the attribute `name` in the first entry that has one; empty without one.
    /// @param name  a type with its options, case ignored
    SOLVANE_LOOKUP_EXPORT std::string value(std::string const& name) const;
    /// Every value of the attribute `name`, of all entries in order.
    /// @param name  a type with its options, case ignored
    SOLVANE_LOOKUP_EXPORT std::vector<std::string> values(std::string const& name) const;
};

} // namespace Solvane::Lookup

#endif

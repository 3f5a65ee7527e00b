// The changes that undo a change, made from the entry as it was before.
#ifndef SOLVANE_TOOL_UNDO_H
#define SOLVANE_TOOL_UNDO_H

#include "AttributeNames.h"

#include <solvane/ldap/LDAPLdif.h>
#include <solvane/ldap/LDAPOperation.h>
#include <solvane/ldap/LDAPResult.h>

#include <list>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// An entry before and after a change, as far as the server showed it.
struct EntryStates {
    std::optional<LDAPSearchResultEntry> before;
    std::optional<LDAPSearchResultEntry> after;
};

/// What undoes a change.
struct Undo {
    std::vector<LDAPLdifRecord> records; ///< in the order to apply them
    std::vector<std::string> lost;       ///< attributes that cannot be read, and so not restored
    std::vector<std::string>
        doubtful; ///< attributes that had no values, or values that the server does not show
};

/// The first control of a record whose effect cannot be undone; null if there is none. Known are those
/// that say on whose behalf or on which entry, and assertions.
LDAPLdifRecord::Control const* controlWithoutUndo(LDAPLdifRecord const& record);

/// The controls that ask for the entry before and after a change (RFC 4527).
/// @throws Failure  a rename with an invalid DN, which cannot be undone
std::list<LDAPOperation::Control> controlsForUndo(LDAPLdifRecord const& record);

/// Undoes a change that the server has made. Attributes that the change did not name stay out.
/// @param names  of the server's schema: one attribute may have several names
Undo undoOf(LDAPLdifRecord const& record, EntryStates const& states, LDAPSchema const& schema);

} // namespace Solvane::Tool

#endif

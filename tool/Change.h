// One change record, sent to a directory.
#ifndef SOLVANE_TOOL_CHANGE_H
#define SOLVANE_TOOL_CHANGE_H

#include "Sessions.h"

#include <solvane/ldap/LDAPLdif.h>
#include <solvane/ldap/LDAPOperation.h>

#include <list>

namespace Solvane::Tool {

/// What became of a change.
struct ChangeResult {
    enum class Status {
        applied,
        refused, ///< by the server, or before anything was sent
        unknown, ///< sent, but no response came: the server may have made it
    };

    Status status = Status::unknown;
    int code = 0;                               ///< LDAP result code, or OpenLDAP's own below 0
    std::string text;                           ///< cause, one line; empty if it was applied
    std::list<LDAPOperation::Control> controls; ///< of the response
};

/// OpenLDAP's text for a result code, and the server's own text if any; without the code itself. Empty
/// for success.
std::string wordsFor(ResultMessage const& result);

/// Sends a change with its controls, and blocks until it is answered.
/// @param more  controls besides those of the record
ChangeResult sendChange(Lookup::Session& session, LDAPLdifRecord const& record,
                        std::list<LDAPOperation::Control> const& more,
                        LDAPLookup::Settings const& settings);

} // namespace Solvane::Tool

#endif

/// @file
/// Maps LDAP result codes to outcomes.
#ifndef SOLVANE_SESSION_RESULT_CODES_H
#define SOLVANE_SESSION_RESULT_CODES_H

#include <solvane/session/Export.h>
#include <solvane/session/Verdict.h>

#include <string>

namespace Solvane::Lookup {

/// The outcome of a search with this result code. Never `NotFound`: whether there are entries
/// decides that. Codes that are unknown, or mean an error of this library, are `TryLater`, so that mail is
/// deferred and not bounced.
SOLVANE_LOOKUP_EXPORT Outcome outcomeOfSearch(int code);
/// The same for a bind, where 32 means that the bind DN does not exist.
SOLVANE_LOOKUP_EXPORT Outcome outcomeOfBind(int code);

/// True for codes that concern this server or connection, so that another server may answer: 1, 2,
/// 3, 11, 32, 50, 51, 52, 53, 80, -1, -4, -5, -11.
SOLVANE_LOOKUP_EXPORT bool speaksOfServer(int code);

/// True for codes that are about this process, which lacks descriptors or memory, and say nothing
/// about a server: -2, -10.
SOLVANE_LOOKUP_EXPORT bool speaksOfProcess(int code);

/// OpenLDAP's text for a code, the code, and the server's own text if any, on one line: "Server is
/// busy (51): maintenance".
SOLVANE_LOOKUP_EXPORT std::string wordsFor(int code, std::string const& serverText = std::string());

/// The name of an outcome, as "try later".
SOLVANE_LOOKUP_EXPORT char const* name(Outcome outcome);

} // namespace Solvane::Lookup

#endif

/// @file
/// What LDAP result codes mean for a lookup.
#ifndef SOLVANE_SESSION_RESULT_CODES_H
#define SOLVANE_SESSION_RESULT_CODES_H

#include <solvane/session/Export.h>
#include <solvane/session/Verdict.h>

#include <string>

namespace Solvane::Lookup {

/// What a result code of a search means. Never `NotFound`: the entries tell that. A code that is not
/// in RFC 4511 is `TryLater`, since it must not bounce mail.
SOLVANE_LOOKUP_EXPORT Outcome outcomeOfSearch(int code);
/// The same for a bind, where 32 is about the bind DN.
SOLVANE_LOOKUP_EXPORT Outcome outcomeOfBind(int code);

/// True for codes that are about this server or this connection, so that another server may well
/// answer: 1, 2, 3, 11, 32, 50, 51, 52, 53, 80, -1, -4, -5, -11.
SOLVANE_LOOKUP_EXPORT bool speaksOfServer(int code);

/// True for codes that are about this process, which lacks descriptors or memory, and say nothing about
/// a server: -2, -10.
SOLVANE_LOOKUP_EXPORT bool speaksOfProcess(int code);

/// OpenLDAP's words for a code and the code, with the server's own text if it has one, in one line:
/// "Server is busy (51): maintenance".
SOLVANE_LOOKUP_EXPORT std::string wordsFor(int code, std::string const& serverText = std::string());

/// An outcome in words, as "try later".
SOLVANE_LOOKUP_EXPORT char const* name(Outcome outcome);

} // namespace Solvane::Lookup

#endif

// Why a server denies a bind.
#ifndef SOLVANE_LOOKUP_SRC_DENIALS_H
#define SOLVANE_LOOKUP_SRC_DENIALS_H

#include <solvane/lookup/Verification.h>

#include <solvane/session/BindResult.h>

#include <string>

namespace Solvane::Lookup {

/// Why the server does not let this user in, as far as it says so. `none`: it lets the user in
/// (code 0), or its answer is about the server, not the user.
Denial denialOf(BindResult const& result);

/// Why not to send this password; empty if it may be sent. A server may treat a bind without a
/// password as anonymous and accept it (RFC 4513 section 5.1.2), and may decode one that is blank
/// or not UTF-8 to nothing.
std::string faultOfPassword(std::string const& password);

/// A denial in words.
std::string describe(Denial denial);

} // namespace Solvane::Lookup

#endif

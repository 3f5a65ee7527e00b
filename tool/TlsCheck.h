// Checks the TLS settings: each part, where it comes from, and whether it can be used.
#ifndef SOLVANE_TOOL_TLS_CHECK_H
#define SOLVANE_TOOL_TLS_CHECK_H

#include "CheckReport.h"

#include <solvane/session/TlsPolicy.h>

#include <ctime>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// "expires in 30 days", or "expired 3 days ago".
std::string expiryOf(std::time_t end);
/// Whether a certificate has ended, or ends so soon that an administrator should act.
bool endsSoon(std::time_t end);

/// Reports a step for each part of the policy: what is used, and whether it comes from the settings,
/// from a file or variable of OpenLDAP, or is the default.
void checkTls(Lookup::TlsPolicy const& policy, CheckReport& report);

/// The issuers of the revocation lists in a PEM file, as RFC 4514 writes them; none if it cannot be
/// read.
std::vector<std::string> issuersOfRevocations(std::string const& file);

} // namespace Solvane::Tool

#endif

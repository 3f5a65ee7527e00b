// Checks the client certificate of the settings.
#ifndef SOLVANE_TOOL_CLIENT_CERTIFICATE_H
#define SOLVANE_TOOL_CLIENT_CERTIFICATE_H

#include "CheckReport.h"

#include <solvane/session/TlsPolicy.h>

#include <string>

namespace Solvane::Tool {

/// "expires in 30 days", or "expired 3 days ago".
std::string expiryOf(std::time_t end);
/// Whether a certificate has ended, or ends so soon that an administrator should act.
bool endsSoon(std::time_t end);

/// Reports the step "client cert": its subject, its validity, and whether it fits its key. Reports
/// nothing if neither the policy nor OpenLDAP's configuration names one.
void checkClientCertificate(Lookup::TlsPolicy const& policy, CheckReport& report);

} // namespace Solvane::Tool

#endif

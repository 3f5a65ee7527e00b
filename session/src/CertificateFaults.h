// Describes why certificates are not trusted.
#ifndef SOLVANE_SESSION_SRC_CERTIFICATE_FAULTS_H
#define SOLVANE_SESSION_SRC_CERTIFICATE_FAULTS_H

#include <solvane/session/Certificate.h>

#include <string>
#include <vector>

namespace Solvane::Lookup {

/// Describes what GnuTLS found wrong with a chain.
/// @param status  GNUTLS_CERT_... flags
/// @param chain   as the server sent it, its own certificate first; not empty
std::string faultInWords(unsigned int status, std::vector<Certificate> const& chain);

} // namespace Solvane::Lookup

#endif

// Describes why certificates are not trusted, and what is wrong with files of certificates and keys.
#ifndef SOLVANE_SESSION_SRC_CERTIFICATE_FAULTS_H
#define SOLVANE_SESSION_SRC_CERTIFICATE_FAULTS_H

#include <solvane/session/Certificate.h>

#include <gnutls/gnutls.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

namespace Solvane::Lookup {

/// Describes what GnuTLS found wrong with a chain.
/// @param status  GNUTLS_CERT_... flags
/// @param chain   as the server sent it, its own certificate first; not empty
std::string faultInWords(unsigned int status, std::vector<Certificate> const& chain);

/// The system's word for why a file cannot be read; empty if it can.
inline std::string unreadable(std::string const& file)
{
    return access(file.c_str(), R_OK) == 0 ? std::string()
                                           : std::string("cannot be read: ") + strerror(errno);
}

/// What is wrong with a file, in words; empty if nothing is.
/// @param content  what it is to hold
/// @param read     reads it: how many there are, or GnuTLS's error below 0
template <typename Read>
std::string faultOf(std::string const& file, std::string const& content, Read const& read)
{
    std::string fault = unreadable(file);
    if (!fault.empty()) {
        return fault;
    }
    int const count = read(file.c_str());
    if (count < 0) {
        return "contains no usable " + content + ": " + gnutls_strerror(count);
    }
    return count == 0 ? "contains no " + content : std::string();
}

} // namespace Solvane::Lookup

#endif

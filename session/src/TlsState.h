// What a TLS context holds.
#ifndef SOLVANE_SESSION_SRC_TLS_STATE_H
#define SOLVANE_SESSION_SRC_TLS_STATE_H

#include <solvane/session/TlsContext.h>

#include <gnutls/gnutls.h>

#include <ctime>
#include <map>
#include <mutex>
#include <string>

namespace Solvane::Lookup {

/// A TLS session that can be resumed, with a server whose certificate was accepted.
struct ResumableTls {
    std::string data;           ///< GnuTLS's; empty: there is none
    std::time_t validUntil = 0; ///< when the first certificate of the server's chain expires
};

struct TlsContext::State : public NonCopyable {
    explicit State(TlsPolicy const& asked);
    ~State();

    /// The last session with this server that can be resumed.
    ResumableTls recall(std::string const& server) const;
    /// Keeps a session; one without data forgets it.
    void remember(std::string const& server, ResumableTls session);

    TlsPolicy policy;
    Verdict verdict;
    gnutls_certificate_credentials_t credentials = nullptr; // read by all sessions, changed by none
    gnutls_priority_t priority = nullptr;

private:
    void addConfigured();
    void readAuthorities();
    void readRevocations();
    void readClientCertificate();
    void readCiphers();
    void refuse(std::string const& what, std::string const& why);

    mutable std::mutex m_mutex;
    std::map<std::string, ResumableTls> m_resumable; // guarded by m_mutex; by host and port
};

} // namespace Solvane::Lookup

#endif

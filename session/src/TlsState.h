// The state of a TLS context.
#ifndef SOLVANE_SESSION_SRC_TLS_STATE_H
#define SOLVANE_SESSION_SRC_TLS_STATE_H

#include <solvane/session/TlsContext.h>

#include <gnutls/gnutls.h>

#include <ctime>
#include <map>
#include <mutex>
#include <string>

namespace Solvane::Lookup {

/// A resumable TLS session with a server whose certificate was accepted.
struct ResumableTls {
    std::string data;           ///< GnuTLS's session data; empty: none
    std::time_t validUntil = 0; ///< when the first certificate of the server's chain expires
};

struct TlsContext::State : public NonCopyable {
    explicit State(TlsPolicy const& asked);
    ~State();

    /// The last resumable session with this server. Thread-safe.
    ResumableTls recall(std::string const& server) const;
    /// Stores a session; empty data removes it. Thread-safe.
    void remember(std::string const& server, ResumableTls session);

    TlsPolicy policy;
    Verdict verdict;
    gnutls_certificate_credentials_t credentials = nullptr; // shared read-only by all sessions
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

// What a TLS context holds.
#ifndef SOLVANE_SESSION_SRC_TLS_STATE_H
#define SOLVANE_SESSION_SRC_TLS_STATE_H

#include <solvane/session/TlsContext.h>

#include <gnutls/gnutls.h>

#include <map>
#include <mutex>
#include <string>

namespace Solvane::Lookup {

struct TlsContext::State : public NonCopyable {
    explicit State(TlsPolicy const& asked);
    ~State();

    /// The data of the last session with this server that can be resumed; empty if there is none.
    std::string recall(std::string const& server) const;
    /// Keeps the data of a session whose certificate was accepted; empty data forgets it.
    void remember(std::string const& server, std::string data);

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
    std::map<std::string, std::string> m_resumable; // guarded by m_mutex; by host and port
};

} // namespace Solvane::Lookup

#endif

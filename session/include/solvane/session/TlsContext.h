/// @file
/// TLS settings and state shared by all sessions of an engine.
#ifndef SOLVANE_SESSION_TLS_CONTEXT_H
#define SOLVANE_SESSION_TLS_CONTEXT_H

#include <solvane/session/Export.h>
#include <solvane/session/TlsPolicy.h>
#include <solvane/session/Verdict.h>

#include <solvane/ldap/RefCounted.h>

#include <memory>

namespace Solvane::Lookup {

/// Authorities, revocation lists, client certificate and ciphers, loaded once for any number of
/// sessions; and resumable TLS sessions by host and port. Thread-safe.
class SOLVANE_LOOKUP_EXPORT TlsContext : public NonCopyable {
public:
    /// Reads the files of the policy. Settings left empty are taken from the current OpenLDAP
    /// configuration of this process. Never throws for a bad setting: see `verdict`.
    explicit TlsContext(TlsPolicy const& policy);
    ~TlsContext();

    /// Good, or `Misconfigured` -9 with the faulty file or setting and the cause.
    Verdict const& verdict() const;
    /// The policy, completed from the configuration.
    TlsPolicy const& policy() const;

private:
    friend class TlsStream;

    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace Solvane::Lookup

#endif
